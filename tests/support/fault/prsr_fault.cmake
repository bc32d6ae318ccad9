# prsr_fault_link(target): links a test with the fault interposer ahead of
# everything else. Include this file from any test folder; the interposer
# target itself may be defined before or after the call.
#
# The interposer comes first among the NEEDED entries because it is named
# among the link options, which precede the objects and libraries on the
# command line; --no-as-needed keeps it although nothing before it refers
# to it. The ordinary link adds the include directory, the build order and
# the run path.
include_guard(GLOBAL)

function(prsr_fault_link target)
  target_link_options(${target} BEFORE PRIVATE
    -Wl,--no-as-needed $<TARGET_FILE:prsr_fault>)
  target_link_libraries(${target} PRIVATE prsr_fault)
endfunction()
