# Run by cpack after the Debian packages are built (CPACK_POST_BUILD_SCRIPTS).
#
# CPack writes no Multi-Arch field. Every file of these packages either lies under the multiarch
# library folder or is the same for all architectures (the headers), so each one is
# "Multi-Arch: same": liborvix1:amd64 and liborvix1:armhf install side by side.
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  if(NOT deb MATCHES "\\.d?deb$")
    continue()
  endif()
  set(tree "${deb}.tree")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb --raw-extract "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(READ "${tree}/DEBIAN/control" control)
  # A leading newline lets one pattern match every field, the first one included.
  set(control "\n${control}")
  if(NOT control MATCHES "\nMulti-Arch:")
    string(REGEX REPLACE "(\nArchitecture: [^\n]*\n)" "\\1Multi-Arch: same\n" control "${control}")
    string(SUBSTRING "${control}" 1 -1 control)
    file(WRITE "${tree}/DEBIAN/control" "${control}")
    execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build "${tree}" "${deb}"
      OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  endif()
  file(REMOVE_RECURSE "${tree}")
endforeach()
