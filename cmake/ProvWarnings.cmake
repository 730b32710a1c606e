# Every target links prov_warnings: the warning set is the same everywhere. Warnings are errors
# in the project's own builds (./dev turns PROV_WERROR on); a packager's compiler may know
# warnings that this one does not, so a plain configure keeps them warnings unless asked.
option(PROV_WERROR "Treat warnings as errors" OFF)
add_library(prov_warnings INTERFACE)
target_compile_options(prov_warnings INTERFACE
    -Wall -Wextra -Wpedantic -Wsuggest-override -Wnon-virtual-dtor
    $<$<BOOL:${PROV_WERROR}>:-Werror>
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>)
