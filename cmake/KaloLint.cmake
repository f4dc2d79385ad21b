# Lint gates, run by CI:
#   format-check  every C and C++ file of the tree is as clang-format leaves it
#   format        formats them in place
#   tidy-check    clang-tidy (checks in .clang-tidy) finds nothing in the library,
#                 the simulator, the tools and the examples; the tests are left
#                 out (the test framework's macros trip the bugprone checks).
find_program(KALO_CLANG_FORMAT NAMES clang-format-14 clang-format)
find_program(KALO_RUN_CLANG_TIDY NAMES run-clang-tidy-14 run-clang-tidy)
find_program(KALO_CLANG_TIDY NAMES clang-tidy-14 clang-tidy)

file(GLOB_RECURSE KALO_FORMATTED_FILES
     ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/src/*.h ${PROJECT_SOURCE_DIR}/src/*.cpp
     ${PROJECT_SOURCE_DIR}/sim/*.h ${PROJECT_SOURCE_DIR}/sim/*.cpp
     ${PROJECT_SOURCE_DIR}/tests/*.h ${PROJECT_SOURCE_DIR}/tests/*.cpp ${PROJECT_SOURCE_DIR}/tests/*.c
     ${PROJECT_SOURCE_DIR}/tools/*.c ${PROJECT_SOURCE_DIR}/tools/*.h ${PROJECT_SOURCE_DIR}/tools/*.cpp
     ${PROJECT_SOURCE_DIR}/examples/*.c ${PROJECT_SOURCE_DIR}/bench/*.cpp ${PROJECT_SOURCE_DIR}/bench/*.c
     ${PROJECT_SOURCE_DIR}/bench/*.h ${PROJECT_SOURCE_DIR}/fuzz/*.cpp ${PROJECT_SOURCE_DIR}/python/*.c)

if(KALO_CLANG_FORMAT)
  add_custom_target(format-check
    COMMAND ${KALO_CLANG_FORMAT} --dry-run --Werror ${KALO_FORMATTED_FILES}
    COMMAND ${CMAKE_COMMAND} -E echo "format-check: every file is formatted"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
  add_custom_target(format
    COMMAND ${KALO_CLANG_FORMAT} -i ${KALO_FORMATTED_FILES}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
endif()

if(KALO_RUN_CLANG_TIDY AND KALO_CLANG_TIDY)
  # Runs over the compile commands of this build tree; generated files (the
  # version header) must exist, so it depends on the library.
  add_custom_target(tidy-check
    COMMAND ${KALO_RUN_CLANG_TIDY} -clang-tidy-binary ${KALO_CLANG_TIDY} -p ${PROJECT_BINARY_DIR}
            -quiet "${PROJECT_SOURCE_DIR}/(src|sim|tools|examples)/"
    COMMAND ${CMAKE_COMMAND} -E echo "tidy-check: no warning"
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
  add_dependencies(tidy-check kalo)
endif()
