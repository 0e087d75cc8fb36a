# Warnings, sanitizers and small helpers shared by every target.

add_library(verifier_warnings INTERFACE)
target_compile_options(verifier_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>)
if(VERIFIER_WERROR)
  target_compile_options(verifier_warnings INTERFACE -Werror)
endif()

if(VERIFIER_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(VERIFIER_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT VERIFIER_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VERIFIER_SANITIZE must be '', 'address' or 'thread'")
endif()

include(GoogleTest OPTIONAL)

# verifier_test(NAME SOURCES src... LIBS lib... [LABELS label] [TIMEOUT s])
# One GoogleTest executable registered as one ctest case per test.
function(verifier_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main verifier_warnings)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  # gtest_discover_tests passes PROPERTIES on as one flat list, so no value
  # may hold a ';': an empty or multi-element LABELS, or two variables in one
  # ENVIRONMENT, would shift every following property. Hence one label at
  # most, and the second variable through ENVIRONMENT_MODIFICATION.
  list(LENGTH T_LABELS label_count)
  if(label_count GREATER 1)
    message(FATAL_ERROR "verifier_test(${name}): give at most one label")
  endif()
  set(properties TIMEOUT ${T_TIMEOUT}
    ENVIRONMENT "VERIFIER_BUILD_DIR=${CMAKE_BINARY_DIR}"
    ENVIRONMENT_MODIFICATION "VERIFIER_SOURCE_DIR=set:${CMAKE_SOURCE_DIR}")
  if(label_count EQUAL 1)
    list(APPEND properties LABELS ${T_LABELS})
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES ${properties})
endfunction()
