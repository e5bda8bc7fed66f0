# Client code for the Wayland protocols the desktop backends speak over
# connections of their own, generated with wayland-scanner at build time:
# wlr data-control (its definition lives in src/desktop/wayland/protocols,
# as Debian packages none) and KWin's fake-input (plasma-wayland-protocols).
pkg_check_modules(WAYLAND REQUIRED IMPORTED_TARGET wayland-client)
pkg_get_variable(ORVANE_WAYLAND_SCANNER wayland-scanner wayland_scanner)
if(NOT ORVANE_WAYLAND_SCANNER)
  find_program(ORVANE_WAYLAND_SCANNER wayland-scanner REQUIRED)
endif()
find_file(KDE_FAKE_INPUT_XML fake-input.xml
  PATHS /usr/share/plasma-wayland-protocols /usr/local/share/plasma-wayland-protocols
  NO_DEFAULT_PATH REQUIRED)

set(WAYLAND_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated/wayland)
file(MAKE_DIRECTORY ${WAYLAND_GENERATED_DIR})
set(WAYLAND_PROTOCOL_SOURCES)

function(orvane_wayland_protocol name xml)
  set(header ${WAYLAND_GENERATED_DIR}/${name}-client-protocol.h)
  set(code ${WAYLAND_GENERATED_DIR}/${name}-protocol.c)
  add_custom_command(OUTPUT ${header}
    COMMAND ${ORVANE_WAYLAND_SCANNER} client-header ${xml} ${header}
    DEPENDS ${xml} VERBATIM)
  add_custom_command(OUTPUT ${code}
    COMMAND ${ORVANE_WAYLAND_SCANNER} private-code ${xml} ${code}
    DEPENDS ${xml} VERBATIM)
  set(WAYLAND_PROTOCOL_SOURCES ${WAYLAND_PROTOCOL_SOURCES} ${header} ${code} PARENT_SCOPE)
endfunction()

orvane_wayland_protocol(wlr-data-control-unstable-v1
  ${CMAKE_SOURCE_DIR}/src/desktop/wayland/protocols/wlr-data-control-unstable-v1.xml)
orvane_wayland_protocol(fake-input ${KDE_FAKE_INPUT_XML})

# The generated code is C; the library that uses it compiles it too.
add_library(orvane_wayland_protocols STATIC ${WAYLAND_PROTOCOL_SOURCES})
target_include_directories(orvane_wayland_protocols PUBLIC ${WAYLAND_GENERATED_DIR})
target_link_libraries(orvane_wayland_protocols PUBLIC PkgConfig::WAYLAND)
