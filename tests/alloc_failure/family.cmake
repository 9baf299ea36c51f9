# SPDX-License-Identifier: MIT
# Allocation failure on request (tests/support/fail_alloc.cpp replaces
# malloc in this binary). The naming cases use the in-memory parameter
# store; the LUT cases look the ANTLR runtime up with dlsym.
set(VORTA_FAMILY_LIBS vorta_params ${CMAKE_DL_LIBS})
