# The maker's kit: fwmod, and a virtual set that needs no build tree and can be moved.
#
#   PREFIX/bin/fwmod, vset
#   PREFIX/libexec/tarnwick/           vset itself and what it starts, one beside the other
#   PREFIX/libexec/tarnwick/set/usr/   what `vset new` puts into a set
#
# Header, CMake package and fwmod with its manual page are installed where they are built; all of it is the
# component sdk. Without a component everything is installed, and so the whole kit.
set(kit ${CMAKE_INSTALL_LIBEXECDIR}/tarnwick)
set(kit_set ${kit}/set/usr)
set(kit_programs vset vset-control platformd psmountd upgrade-ui module-probe control-examiner)

# Of the programs that run on this side of the set, one uses the set's platform library.
set_target_properties(upgrade-ui PROPERTIES INSTALL_RPATH "$ORIGIN/set/usr/lib")
install(TARGETS ${kit_programs} RUNTIME DESTINATION ${kit} COMPONENT sdk)
install(TARGETS vset-clock LIBRARY DESTINATION ${kit} COMPONENT sdk)
install(TARGETS tarnwick fwctl RUNTIME DESTINATION ${kit_set}/bin COMPONENT sdk)
install(TARGETS tarnwick-platform LIBRARY DESTINATION ${kit_set}/lib NAMELINK_SKIP COMPONENT sdk)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/org.pellor.tv.tarnwick.conf
    DESTINATION ${kit_set}/share/dbus-1/system.d COMPONENT sdk)
file(RELATIVE_PATH vset_from_bin /${CMAKE_INSTALL_BINDIR} /${kit}/vset)
install(CODE "file(CREATE_LINK ${vset_from_bin}
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/vset\" SYMBOLIC)"
    COMPONENT sdk)

# Nothing else has to be built for it.
add_custom_target(sdk-kit)
add_dependencies(sdk-kit fwmod ${kit_programs} vset-clock tarnwick fwctl tarnwick-platform tarnwick-television)
