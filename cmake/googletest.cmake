# Builds GoogleTest from the source that Debian's package installs, not from its
# prebuilt library. So it also exists for 32 bits, and is instrumented like the code
# it tests.
set(OVEL_GOOGLETEST /usr/src/googletest/googletest CACHE PATH "GoogleTest's source")
if(NOT EXISTS ${OVEL_GOOGLETEST}/src/gtest-all.cc)
    message(FATAL_ERROR "No GoogleTest in ${OVEL_GOOGLETEST}: install Debian's package "
        "googletest, set OVEL_GOOGLETEST, or leave the tests out with -DOVEL_TESTS=OFF")
endif()

add_library(gtest_main STATIC EXCLUDE_FROM_ALL
    ${OVEL_GOOGLETEST}/src/gtest-all.cc
    ${OVEL_GOOGLETEST}/src/gtest_main.cc)
ovel_instrument(gtest_main)
# Every preset builds it, and no test waits for it.
target_compile_options(gtest_main PRIVATE -O1 -g0)
target_compile_features(gtest_main PUBLIC cxx_std_20)
target_include_directories(gtest_main SYSTEM PUBLIC ${OVEL_GOOGLETEST}/include)
target_include_directories(gtest_main PRIVATE ${OVEL_GOOGLETEST})
target_link_libraries(gtest_main PUBLIC Threads::Threads)
