# Finds libtorch, for CPUs, and makes the target Libtorch::Libtorch.
#
# Looked for where CMAKE_PREFIX_PATH says; a Python environment's site-packages/torch will do, and so does
# the unpacked libtorch archive. Not through the TorchConfig.cmake that comes with it: that looks for MKL,
# protobuf and Kineto on the machine, warns about those it does not find, and links whatever a program
# might need. ATen, which is all that is used here, is two libraries and a folder of headers.
#
# Sets Libtorch_FOUND, Libtorch_VERSION and Libtorch_LIBRARY_DIR.
find_path(Libtorch_INCLUDE_DIR ATen/core/Tensor.h)
find_library(Libtorch_TORCH_CPU_LIBRARY torch_cpu)
find_library(Libtorch_C10_LIBRARY c10)
mark_as_advanced(Libtorch_INCLUDE_DIR Libtorch_TORCH_CPU_LIBRARY Libtorch_C10_LIBRARY)

if(Libtorch_INCLUDE_DIR)
  foreach(header torch/headeronly/version.h torch/csrc/api/include/torch/version.h)
    if(EXISTS "${Libtorch_INCLUDE_DIR}/${header}" AND NOT Libtorch_VERSION)
      file(STRINGS "${Libtorch_INCLUDE_DIR}/${header}" lines
           REGEX "^#define TORCH_VERSION_(MAJOR|MINOR|PATCH) [0-9]+$")
      list(TRANSFORM lines REPLACE "^.* " "")
      list(JOIN lines "." Libtorch_VERSION)
    endif()
  endforeach()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libtorch
  REQUIRED_VARS Libtorch_TORCH_CPU_LIBRARY Libtorch_C10_LIBRARY Libtorch_INCLUDE_DIR
  VERSION_VAR Libtorch_VERSION)

if(Libtorch_FOUND AND NOT TARGET Libtorch::Libtorch)
  get_filename_component(Libtorch_LIBRARY_DIR "${Libtorch_TORCH_CPU_LIBRARY}" DIRECTORY)
  add_library(Libtorch::c10 SHARED IMPORTED)
  set_target_properties(Libtorch::c10 PROPERTIES
    IMPORTED_LOCATION "${Libtorch_C10_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${Libtorch_INCLUDE_DIR}")
  add_library(Libtorch::Libtorch SHARED IMPORTED)
  set_target_properties(Libtorch::Libtorch PROPERTIES
    IMPORTED_LOCATION "${Libtorch_TORCH_CPU_LIBRARY}"
    INTERFACE_LINK_LIBRARIES Libtorch::c10)
endif()
