# kodl_generate(<library> OUT_SOURCES <var> OWN <files...> [IMPORTS <files...>])
#
# Runs kodlgen over a library's interface definitions. Each definition file lies at
# <root>/<module path>/types.kodl; its header and source land at
# ${MORPHEL_GENERATED_DIR}/<library>/{include,src}/<module path>/types.{h,cpp}, where a module path
# starting with "kodl" is written "kitra"; <library>/<library>Types.h includes every module.
function(kodl_generate library)
    cmake_parse_arguments(ARG "" "OUT_SOURCES;ROOT" "OWN;IMPORTS" ${ARGN})
    set(out ${MORPHEL_GENERATED_DIR}/${library})
    set(outputs "")
    set(sources "")
    foreach(file IN LISTS ARG_OWN)
        file(RELATIVE_PATH rel ${ARG_ROOT} ${file})
        get_filename_component(dir ${rel} DIRECTORY)
        string(REGEX REPLACE "^kodl" "kitra" dir "${dir}")
        list(APPEND outputs ${out}/include/${dir}/types.h ${out}/src/${dir}/types.cpp)
        list(APPEND sources ${out}/src/${dir}/types.cpp)
    endforeach()
    list(APPEND outputs ${out}/src/${library}_versions.cpp ${out}/include/${library}/${library}Types.h)
    list(APPEND sources ${out}/src/${library}_versions.cpp)
    set(import_args "")
    foreach(file IN LISTS ARG_IMPORTS)
        list(APPEND import_args --import ${file})
    endforeach()
    add_custom_command(
        OUTPUT ${outputs}
        COMMAND kodlgen --library ${library} --out ${out} --versions ${MORPHEL_VERSIONS_FILE} ${import_args} ${ARG_OWN}
        DEPENDS kodlgen ${ARG_OWN} ${ARG_IMPORTS} ${MORPHEL_VERSIONS_FILE}
        COMMENT "Generating the ${library} bindings"
        VERBATIM)
    set(${ARG_OUT_SOURCES} ${sources} PARENT_SCOPE)
endfunction()

# kodl_add_library(<target> <library> ROOT <dir> OWN <files...> [IMPORTS <files...>] [SOURCES <files...>]
#                  LINK <targets...>)
#
# A library made of the generated modules (plus any hand-written SOURCES), installed and exported under
# the package's namespace.
function(kodl_add_library target library)
    cmake_parse_arguments(ARG "" "ROOT" "OWN;IMPORTS;SOURCES;LINK" ${ARGN})
    kodl_generate(${library} ROOT ${ARG_ROOT} OUT_SOURCES generated OWN ${ARG_OWN} IMPORTS ${ARG_IMPORTS})
    add_library(${target} ${generated} ${ARG_SOURCES})
    add_library(morphelTypes::${target} ALIAS ${target})
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${MORPHEL_GENERATED_DIR}/${library}/include>
        $<INSTALL_INTERFACE:include>)
    target_link_libraries(${target} PUBLIC ${ARG_LINK})
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON EXPORT_NAME ${target})
endfunction()
