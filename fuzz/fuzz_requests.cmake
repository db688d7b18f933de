# The program lies in a bundle, whose Info.plist it writes itself: that of the host that asks.
function(vtd_fuzz_requests name world)
    vtd_fuzz(${name} LIBRARIES vtd_core
        SOURCES FuzzRequests.cpp Cost.cpp Host.cpp HostileWorld.cpp RequestGenerator.cpp
            ${CMAKE_SOURCE_DIR}/bench/RawConnection.cpp)
    target_compile_definitions(${name} PRIVATE FUZZ_WORLD=${world})
    set(bin ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
    set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${bin}/${name}.app)
    add_custom_command(TARGET ${name} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E create_symlink ${name}.app/${name} ${bin}/${name})
endfunction()

vtd_fuzz_requests(fuzz_requests small)
