# veq_add_plugin(<name> VERSION <a.b.c.d> SOURCES <files>... [SIGN_KEY <pem> SIGN_CERT <pem>])
#
# Builds the plugin library <name>.dll (an ELF shared object, named as the service looks for it),
# embeds its version in the section ".veq.version", and, with a key and certificate, signs it
# with veq-sign after every build. SIGN_KEY and SIGN_CERT default to the cache variables
# VEQ_SIGN_KEY and VEQ_SIGN_CERT.
function(veq_add_plugin name)
  cmake_parse_arguments(PLUGIN "" "VERSION;SIGN_KEY;SIGN_CERT" "SOURCES" ${ARGN})
  if(NOT PLUGIN_VERSION MATCHES "^[0-9]+(\\.[0-9]+)?(\\.[0-9]+)?(\\.[0-9]+)?$")
    message(FATAL_ERROR "veq_add_plugin(${name}): VERSION must be one to four numbers separated by dots")
  endif()
  if(NOT PLUGIN_SIGN_KEY AND DEFINED VEQ_SIGN_KEY)
    set(PLUGIN_SIGN_KEY ${VEQ_SIGN_KEY})
  endif()
  if(NOT PLUGIN_SIGN_CERT AND DEFINED VEQ_SIGN_CERT)
    set(PLUGIN_SIGN_CERT ${VEQ_SIGN_CERT})
  endif()
  find_program(VEQ_OBJCOPY objcopy REQUIRED)

  add_library(${name} MODULE ${PLUGIN_SOURCES})
  target_link_libraries(${name} PRIVATE veq::plugin)
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".dll" CXX_VISIBILITY_PRESET hidden
                                            C_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  set(version_file ${CMAKE_CURRENT_BINARY_DIR}/${name}.version)
  file(WRITE ${version_file} "${PLUGIN_VERSION}")
  add_custom_command(TARGET ${name} POST_BUILD
    COMMAND ${VEQ_OBJCOPY} --remove-section .veq.version $<TARGET_FILE:${name}>
    COMMAND ${VEQ_OBJCOPY} --add-section .veq.version=${version_file}
            --set-section-flags .veq.version=noload,readonly $<TARGET_FILE:${name}>
    COMMENT "Embedding version ${PLUGIN_VERSION} in ${name}.dll")
  if(PLUGIN_SIGN_KEY AND PLUGIN_SIGN_CERT)
    add_custom_command(TARGET ${name} POST_BUILD
      COMMAND ${VEQ_SIGN_PROGRAM} --key ${PLUGIN_SIGN_KEY} --cert ${PLUGIN_SIGN_CERT} $<TARGET_FILE:${name}>
      COMMENT "Signing ${name}.dll")
  endif()
endfunction()
