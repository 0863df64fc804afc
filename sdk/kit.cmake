# The maker's kit: fwmod, and a virtual set that needs no build tree and can be moved.
#
#   PREFIX/bin/fwmod, vset
#   PREFIX/libexec/tarnwick/           vset itself and what it starts, one beside the other
#   PREFIX/libexec/tarnwick/set/usr/   what `vset new` puts into a set
#
# Header, CMake package and fwmod with its manual page are installed where they are built; all of it is the
# component sdk.
set(kit ${CMAKE_INSTALL_LIBEXECDIR}/tarnwick)
set(kit_set ${kit}/set/usr)
set(kit_programs vset platformd psmountd upgrade-ui module-probe control-examiner)

# The set's users must be able to enter it, whatever the umask of the person who installs.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Of the programs that run on this side of the set, one uses the set's platform library.
set_target_properties(upgrade-ui PROPERTIES INSTALL_RPATH "$ORIGIN/set/usr/lib")
install(TARGETS ${kit_programs} RUNTIME DESTINATION ${kit} COMPONENT sdk EXCLUDE_FROM_ALL)
install(TARGETS vset-clock LIBRARY DESTINATION ${kit} COMPONENT sdk EXCLUDE_FROM_ALL)
install(TARGETS tarnwick fwctl RUNTIME DESTINATION ${kit_set}/bin COMPONENT sdk EXCLUDE_FROM_ALL)
install(TARGETS tarnwick-platform LIBRARY DESTINATION ${kit_set}/lib COMPONENT sdk EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/org.pellor.tv.tarnwick.conf
    DESTINATION ${kit_set}/share/dbus-1/system.d COMPONENT sdk EXCLUDE_FROM_ALL)
file(RELATIVE_PATH vset_from_bin /${CMAKE_INSTALL_BINDIR} /${kit}/vset)
install(CODE "file(CREATE_LINK ${vset_from_bin}
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/vset\" SYMBOLIC)"
    COMPONENT sdk EXCLUDE_FROM_ALL)

# Nothing else has to be built for it.
add_custom_target(sdk-kit)
add_dependencies(sdk-kit fwmod ${kit_programs} vset-clock tarnwick fwctl tarnwick-platform)
