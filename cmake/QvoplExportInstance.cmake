# qvopl_export_instance(PROGRAM) lets the library find the function OPL_InitInstanceStringSetCallback of the
# program, which names the instance: it is exported, and nothing else is. Where it lies in a static library, it
# is brought in. A program that has no such function does not link; in C++ the function is an extern "C".
function(qvopl_export_instance program)
  set(function OPL_InitInstanceStringSetCallback)
  target_link_options(${program} PRIVATE
    LINKER:--require-defined=${function}
    LINKER:--export-dynamic-symbol=${function})
endfunction()
