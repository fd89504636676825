# The C++ runtime that LibSkerry.dll shares with every program that uses it, as imported targets
# of their own: LibSkerry::libstdc++ (libstdc++-6.dll), LibSkerry::libgcc_s (libgcc_s_dw2-1.dll)
# and LibSkerry::libwinpthread (libwinpthread-1.dll), each linking what its DLL loads.
# LibSkerry's target links the first two and Plinth's the third (Plinth.dll has the rest of the
# runtime inside), so that $<TARGET_RUNTIME_DLLS:app> names the DLLs that a program needs and
# nothing else.
#
# Each target's import library is the compiler's own, the one its driver links for the shared
# runtime anyway. Naming it on the link line, ahead of the driver's libraries, also keeps a
# program on the shared runtime when its flags ask for -static-libstdc++: a second copy of the
# runtime in the program would end the process at the first exception that the library re-raises.
#
# Used by the build (the DLLs where the compiler keeps them) and by the installed package (the
# copies in its bin directory, those the library was tested with).

# libskerry_add_runtime_targets(<directory of the DLLs, or "" for the compiler's own>)
function(libskerry_add_runtime_targets dll_directory)
  if(CMAKE_CXX_COMPILER)
    set(compiler ${CMAKE_CXX_COMPILER})
  else()
    set(compiler ${CMAKE_C_COMPILER})
  endif()
  foreach(runtime "libwinpthread;libwinpthread-1.dll;libwinpthread.dll.a" "libgcc_s;libgcc_s_dw2-1.dll;libgcc_s.a"
                  "libstdc++;libstdc++-6.dll;libstdc++.dll.a")
    list(GET runtime 0 name)
    list(GET runtime 1 dll)
    list(GET runtime 2 implib)
    if(TARGET LibSkerry::${name})
      continue()
    endif()
    execute_process(COMMAND ${compiler} -print-file-name=${implib}
      OUTPUT_VARIABLE implib_path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${implib_path}")
      message(FATAL_ERROR "LibSkerry: ${compiler} has no ${implib}. LibSkerry is built for mingw-w64 GCC "
        "(i686-w64-mingw32, posix threads) with its shared C++ runtime, and a program that uses it must be "
        "built by the same compiler: see the package's share/LibSkerry/toolchain-i686-mingw.cmake.")
    endif()
    if(dll_directory)
      set(dll_path ${dll_directory}/${dll})
    else()
      execute_process(COMMAND ${compiler} -print-file-name=${dll}
        OUTPUT_VARIABLE dll_path OUTPUT_STRIP_TRAILING_WHITESPACE)
    endif()
    get_filename_component(implib_path "${implib_path}" ABSOLUTE)
    get_filename_component(dll_path "${dll_path}" ABSOLUTE)
    add_library(LibSkerry::${name} SHARED IMPORTED)
    set_target_properties(LibSkerry::${name} PROPERTIES IMPORTED_LOCATION ${dll_path} IMPORTED_IMPLIB ${implib_path})
  endforeach()
  set_target_properties(LibSkerry::libgcc_s PROPERTIES INTERFACE_LINK_LIBRARIES LibSkerry::libwinpthread)
  set_target_properties(LibSkerry::libstdc++ PROPERTIES
    INTERFACE_LINK_LIBRARIES "LibSkerry::libgcc_s;LibSkerry::libwinpthread")
endfunction()
