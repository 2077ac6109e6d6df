# Warnings apply to our own targets only; CI turns them into errors.
add_library(norvanta_warnings INTERFACE)
target_compile_options(norvanta_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(DEFINED ENV{CI} AND NOT "$ENV{CI}" STREQUAL "" AND NOT "$ENV{CI}" STREQUAL "false")
  target_compile_options(norvanta_warnings INTERFACE -Werror)
endif()
