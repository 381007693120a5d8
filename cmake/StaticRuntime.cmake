# The agent starts the tool once per request, and loading the shared C++ runtime was
# most of a run that does little work: the installed programs carry their own copy.
# The sanitizers bring their own runtime hooks, so those builds keep the shared one.
option(PP_STATIC_CXX_RUNTIME "Link the C++ runtime into the installed programs" ON)

function(pp_static_cxx_runtime target)
  if(PP_STATIC_CXX_RUNTIME AND NOT PP_SANITIZE AND NOT PP_TSAN)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
