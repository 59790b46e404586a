# Warning and code-generation options shared by the project's own targets.
# They are PRIVATE: consumers of the installed package never inherit them.
function(zorv_target_options target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic
    # Faults these have caught elsewhere: a local hiding a member or an
    # outer variable, a cast dropping const, a helper meant to be internal
    # left external, a polymorphic class without a virtual destructor, an
    # unchecked format string, a C cast hiding a reinterpretation, an
    # override that hides an overload, a case falling into the next.
    -Wshadow -Wcast-qual -Wmissing-declarations -Wnon-virtual-dtor -Wformat=2
    -Wold-style-cast -Woverloaded-virtual -Wimplicit-fallthrough)
  if(ZORV_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|ARM)")
    # GCC notes an ABI change of parameter passing in GCC 7 for some
    # aggregates; it concerns code built with older compilers only.
    target_compile_options(${target} PRIVATE -Wno-psabi)
  endif()
endfunction()
