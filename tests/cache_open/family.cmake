# SPDX-License-Identifier: MIT
set(VORTA_FAMILY_LIBS ${CMAKE_DL_LIBS})
