# The LUT tests also drive the generated lexer and craft runtime exceptions
# for the error hooks, so they see the generated headers and the runtime.
set(VORTA_FAMILY_LIBS vorta_lut_internal)
