# One sanitizer build at a time: ASan with UBSan, or TSan.
if(NORVANTA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(NORVANTA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT NORVANTA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "NORVANTA_SANITIZE must be empty, 'address' or 'thread'")
endif()

# The fuzz build instruments everything for coverage; only the fuzz targets
# link libFuzzer's main.
if(NORVANTA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
