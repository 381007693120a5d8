# The agent starts the tool once per request, and loading the shared C++ runtime was
# most of a run that does little work: the installed programs carry their own copy.
# The sanitizers bring their own runtime hooks, so those builds keep the shared one.
option(PP_STATIC_CXX_RUNTIME "Link the C++ runtime into the installed programs" ON)

# Each function and object in a section of its own, so that the installed programs'
# link drops what they never call: less code to map and fault in at every start.
add_compile_options(-ffunction-sections -fdata-sections)

function(pp_static_cxx_runtime target)
  if(PP_STATIC_CXX_RUNTIME AND NOT PP_SANITIZE AND NOT PP_TSAN)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc -Wl,--gc-sections)
  endif()
endfunction()
