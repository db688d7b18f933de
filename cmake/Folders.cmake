# Adds the folders named, and stops when there is one with a CMakeLists.txt that is not among them: what is not listed
# would neither be built nor tested, and nobody would notice.
function(vtd_add_folders)
    file(GLOB_RECURSE found RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} CONFIGURE_DEPENDS
         ${CMAKE_CURRENT_SOURCE_DIR}/*/CMakeLists.txt)
    list(TRANSFORM found REPLACE "/CMakeLists.txt$" "")
    list(REMOVE_ITEM found ${ARGN})
    if(found)
        message(FATAL_ERROR "not listed in ${CMAKE_CURRENT_SOURCE_DIR}/CMakeLists.txt: ${found}")
    endif()
    foreach(folder ${ARGN})
        add_subdirectory(${folder})
    endforeach()
endfunction()
