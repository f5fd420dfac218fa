# Adaptors and proxies are generated from the interface XML that is also installed for clients, so that the
# three cannot drift apart.
get_filename_component(_kx_dbus_dir "${CMAKE_CURRENT_LIST_DIR}" ABSOLUTE)

function(_kx_qdbusxml2cpp_path variable)
  find_package(Qt5 5.15 REQUIRED COMPONENTS DBus)
  get_target_property(_path Qt5::qdbusxml2cpp IMPORTED_LOCATION)
  set(${variable} "${_path}" PARENT_SCOPE)
endfunction()

# kx_dbus_adaptor(TARGET XML CLASS [INCLUDE]): adds CLASS.h and CLASS.cpp, an adaptor that forwards every member to
# its parent by name. INCLUDE names a header with types that the interface carries.
function(kx_dbus_adaptor target xml class)
  _kx_qdbusxml2cpp_path(tool)
  set(base "${CMAKE_CURRENT_BINARY_DIR}/${class}")
  set(include "")
  if(ARGC GREATER 3)
    set(include -i "${ARGV3}")
  endif()
  add_custom_command(
    OUTPUT "${base}.h" "${base}.cpp"
    COMMAND "${tool}" -a "${class}" -c "${class}" ${include} "${xml}"
    COMMAND "${CMAKE_COMMAND}" "-DBASE=${base}" "-DXML=${xml}" -P "${_kx_dbus_dir}/FinishAdaptor.cmake"
    DEPENDS "${xml}" "${_kx_dbus_dir}/FinishAdaptor.cmake"
    WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
    VERBATIM)
  target_sources(${target} PRIVATE "${base}.h" "${base}.cpp")
endfunction()

# kx_dbus_proxy(TARGET XML CLASS [INCLUDE]): adds CLASS.h and CLASS.cpp, a client proxy whose methods return
# QDBusPendingReply. INCLUDE as above.
function(kx_dbus_proxy target xml class)
  _kx_qdbusxml2cpp_path(tool)
  set(base "${CMAKE_CURRENT_BINARY_DIR}/${class}")
  set(include "")
  if(ARGC GREATER 3)
    set(include -i "${ARGV3}")
  endif()
  add_custom_command(
    OUTPUT "${base}.h" "${base}.cpp"
    COMMAND "${tool}" -N -p "${class}" -c "${class}" ${include} "${xml}"
    DEPENDS "${xml}"
    WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
    VERBATIM)
  target_sources(${target} PRIVATE "${base}.h" "${base}.cpp")
endfunction()
