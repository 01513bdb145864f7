# Linux x86, 32 bits, with the compiler of a 64-bit Debian and g++-multilib.
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
