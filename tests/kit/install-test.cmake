# cmake -DSOURCE= -DBUILD= -DWORK= -P install-test.cmake: installs what makers get, moves it (it is not bound to
# the place it was installed to), builds modules against it, and runs sets with it.
function(run)
    execute_process(COMMAND ${ARGV} COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/installed --component sdk)
file(RENAME ${WORK}/installed ${WORK}/moved)
set(ENV{PKG_CONFIG_PATH} ${WORK}/moved/share/pkgconfig)
run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/maker -B ${WORK}/build -DCMAKE_PREFIX_PATH=${WORK}/moved
    -DINSTALLED=${WORK}/moved -DSOURCE=${SOURCE})
run(${CMAKE_COMMAND} --build ${WORK}/build)
run(${WORK}/moved/bin/fwmod --help)
set(images ${BUILD}/sdk/examples/images)
run(${WORK}/build/whole-story ${WORK}/build/tuner-module/tuner.so ${images}/1.0/hardware/tuner ${images}/1.1/empTuner.img)
run(${CMAKE_CURRENT_LIST_DIR}/moved-kit ${WORK}/moved ${BUILD})
