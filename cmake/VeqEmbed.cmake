# veq_embed_resources(<target> VERSION <a.b.c.d> [RESOURCE <type> <id> <file>]...)
#
# After every link of <target> (a shared library, module or executable), embeds the version as
# the section ".veq.version" and each file as the section ".veq.res.<type>.<id>", where the
# service reads them without loading the file (FileSystem::GetFileVersion,
# ResourceLoaderUtility::LoadCustomResourceFromFile). The sections are not loaded at run time.
# A changed version or resource file relinks the target, so the embedded copy never goes stale.
function(veq_embed_resources target)
  cmake_parse_arguments(EMBED "" "VERSION" "" ${ARGN})
  if(NOT EMBED_VERSION MATCHES "^[0-9]+(\\.[0-9]+)?(\\.[0-9]+)?(\\.[0-9]+)?$")
    message(FATAL_ERROR "veq_embed_resources(${target}): VERSION must be one to four numbers separated by dots")
  endif()
  find_program(VEQ_OBJCOPY objcopy REQUIRED)

  set(embed_dir ${CMAKE_CURRENT_BINARY_DIR}/${target}.embed)
  set(version_file ${embed_dir}/version)
  # Rewritten only when it changes, so that configuring again relinks nothing.
  file(CONFIGURE OUTPUT ${version_file} CONTENT "${EMBED_VERSION}")
  set(sections .veq.version)
  set(section_files ${version_file})

  # What is left are RESOURCE <type> <id> <file> groups; cmake_parse_arguments would keep only
  # the last of repeated keywords, so they are walked here.
  set(rest ${EMBED_UNPARSED_ARGUMENTS})
  list(LENGTH rest count)
  math(EXPR groups "${count} % 4")
  if(NOT groups EQUAL 0)
    message(FATAL_ERROR "veq_embed_resources(${target}): RESOURCE takes a type, an id and a file")
  endif()
  set(at 0)
  while(at LESS count)
    math(EXPR at_type "${at} + 1")
    math(EXPR at_id "${at} + 2")
    math(EXPR at_file "${at} + 3")
    list(GET rest ${at} keyword)
    list(GET rest ${at_type} type)
    list(GET rest ${at_id} id)
    list(GET rest ${at_file} file)
    if(NOT keyword STREQUAL "RESOURCE")
      message(FATAL_ERROR "veq_embed_resources(${target}): unexpected argument '${keyword}'")
    endif()
    # The service refuses other types and ids, as they would name folders and files.
    if(NOT type MATCHES "^[A-Za-z0-9_-]+$" OR NOT id MATCHES "^[0-9]+$")
      message(FATAL_ERROR "veq_embed_resources(${target}): resource type must be letters, digits, '_' or '-', "
                          "and id a number (got '${type}' '${id}')")
    endif()
    get_filename_component(file ${file} ABSOLUTE BASE_DIR ${CMAKE_CURRENT_SOURCE_DIR})
    list(APPEND sections .veq.res.${type}.${id})
    list(APPEND section_files ${file})
    math(EXPR at "${at} + 4")
  endwhile()

  set(objcopy_args)
  foreach(section file IN ZIP_LISTS sections section_files)
    # Removed first: an earlier step may have embedded it already.
    list(APPEND objcopy_args --remove-section ${section} --add-section ${section}=${file}
                             --set-section-flags ${section}=noload,readonly)
  endforeach()
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${section_files})
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${VEQ_OBJCOPY} ${objcopy_args} $<TARGET_FILE:${target}>
    COMMENT "Embedding version ${EMBED_VERSION} and resources in ${target}"
    VERBATIM)
endfunction()
