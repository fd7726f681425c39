# Third-party libraries. Those Debian does not ship for a target are optional there:
# the rows that need them still register and answer Open with E_NOTIMPL.
find_package(Threads REQUIRED)
find_package(nlohmann_json 3 QUIET)
find_package(CLI11 QUIET CONFIG)
if(NOT WIN32)
  find_package(GTest QUIET)
  find_package(benchmark QUIET)
endif()
