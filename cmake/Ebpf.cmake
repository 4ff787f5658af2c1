# The eBPF device, where clang and libbpf are to be had: for this machine's own word size. Else its place is taken by a
# source that says that it is missing. Adds to HOST_KERNEL_SOURCES; sets POLICYROUTE_EBPF.
set(POLICYROUTE_EBPF OFF)
if(POLICYROUTE_NETLINK AND NOT CMAKE_CROSSCOMPILING)
  find_program(POLICYROUTE_BPF_CLANG NAMES clang clang-19 clang-16 clang-14)
  pkg_check_modules(BPF IMPORTED_TARGET libbpf>=1.1)
  if(POLICYROUTE_BPF_CLANG AND BPF_FOUND)
    set(POLICYROUTE_EBPF ON)
  else()
    message(STATUS "The eBPF device is not built: it needs clang and libbpf 1.1 (scripts/setup.sh)")
  endif()
endif()

if(POLICYROUTE_EBPF)
  pbr_sources(EBPF_SOURCES host/device/ebpf)
  list(APPEND HOST_KERNEL_SOURCES ${EBPF_SOURCES})

  # The program for the kernel, and its bytes as an array of ours.
  set(EBPF_GENERATED ${CMAKE_BINARY_DIR}/generated/ebpf)
  set(EBPF_OBJECT ${EBPF_GENERATED}/ingress.o)
  set(EBPF_CODE ${EBPF_GENERATED}/ebpf_code.cpp)
  set(EBPF_ROOT ${CMAKE_SOURCE_DIR}/host/device/ebpf)
  add_custom_command(
    OUTPUT ${EBPF_CODE}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${EBPF_GENERATED}
    COMMAND ${POLICYROUTE_BPF_CLANG} -target bpf -mcpu=v3 -O2 -g -ffreestanding -Wall -Wextra -Werror
            -I/usr/include/${CMAKE_LIBRARY_ARCHITECTURE} -I${EBPF_ROOT}
            -fdebug-prefix-map=${CMAKE_SOURCE_DIR}=. -c ${EBPF_ROOT}/ingress.bpf.c -o ${EBPF_OBJECT}
    COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/ebpf-embed.py ${EBPF_OBJECT} ${EBPF_CODE}
    DEPENDS ${EBPF_ROOT}/ingress.bpf.c ${EBPF_ROOT}/ebpf_layout.h ${CMAKE_SOURCE_DIR}/scripts/ebpf-embed.py
    COMMENT "Compiling the eBPF program")
  list(APPEND HOST_KERNEL_SOURCES ${EBPF_CODE})
else()
  list(APPEND HOST_KERNEL_SOURCES ${CMAKE_SOURCE_DIR}/host/noebpf/no_ebpf_device.cpp)
endif()

# What the device needs of a target that has its sources.
function(pbr_ebpf target)
  if(POLICYROUTE_EBPF)
    target_link_libraries(${target} PUBLIC PkgConfig::BPF)
  endif()
endfunction()
