# Writes mp4core.pc during an install, so that its paths follow the prefix
# in force then (cmake --install --prefix DIR), not the one configured.
# Set by the install rule: MP4CORE_PC_TEMPLATE, MP4CORE_PC_OUTPUT,
# MP4CORE_PC_LIBDIR, MP4CORE_PC_INCLUDEDIR (as in GNUInstallDirs, relative
# to the prefix or absolute) and PROJECT_VERSION.
set(prefix "${CMAKE_INSTALL_PREFIX}")
foreach(dir IN ITEMS libdir includedir)
  string(TOUPPER "${dir}" name)
  if(IS_ABSOLUTE "${MP4CORE_PC_${name}}")
    set(${dir} "${MP4CORE_PC_${name}}")
  else()
    set(${dir} "\${prefix}/${MP4CORE_PC_${name}}")
  endif()
endforeach()
configure_file("${MP4CORE_PC_TEMPLATE}" "${MP4CORE_PC_OUTPUT}" @ONLY)
