# prov_layer(NAME DIR...): an object library of the .cpp files in the given folders, linked into
# libprovisioning.so.
function(prov_layer name)
    set(sources)
    foreach(dir ${ARGN})
        file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${dir}/*.cpp)
        list(APPEND sources ${found})
    endforeach()
    add_library(${name} OBJECT ${sources})
    target_link_libraries(${name} PUBLIC prov_contract PRIVATE prov_warnings)
endfunction()
