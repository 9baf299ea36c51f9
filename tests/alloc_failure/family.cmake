# Allocation failure on request: the binary carries its own malloc. The
# naming cases use the in-memory parameter store.
set(VORTA_FAMILY_LIBS vorta_alloc_failure vorta_params)
