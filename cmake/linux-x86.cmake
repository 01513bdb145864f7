# Linux x86, 32 bits, built by the compiler of a 64-bit Debian with g++-multilib.
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
