# A toolchain of the presets that want clang: the first of these versions that is there, and clang-tidy of the same one
# if TOVANA_CLANG_TIDY is set.
find_program(TOVANA_CLANG NAMES clang++-16 clang++-17 clang++-18 clang++-19 clang++-20 clang++-21 clang++ REQUIRED)
set(CMAKE_CXX_COMPILER "${TOVANA_CLANG}")

if(TOVANA_CLANG_TIDY)
  string(REPLACE "clang++" "clang-tidy" clang_tidy "${TOVANA_CLANG}")
  set(CMAKE_CXX_CLANG_TIDY "${clang_tidy};--quiet")
endif()
