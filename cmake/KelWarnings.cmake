# Warnings for the project's own targets (third-party headers are included as
# system headers and stay quiet).
function(kel_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                           -Woverloaded-virtual -Wno-unused-parameter -Werror)
endfunction()
