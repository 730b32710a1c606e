# Every target links prov_warnings: the warning set is the same everywhere.
add_library(prov_warnings INTERFACE)
target_compile_options(prov_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Werror -Wsuggest-override -Wnon-virtual-dtor
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
