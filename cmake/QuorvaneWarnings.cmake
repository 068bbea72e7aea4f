# Warning flags shared by every target of ours: clean builds with -Wall -Wextra.
function(quorvane_warnings target)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    return()
  endif()
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wno-multichar)
endfunction()
