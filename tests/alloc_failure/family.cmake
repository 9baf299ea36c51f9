# Allocation failure on request: the binary carries its own malloc.
set(VORTA_FAMILY_LIBS vorta_alloc_failure)
