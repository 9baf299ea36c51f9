# SPDX-License-Identifier: MIT
set(VORTA_FAMILY_LIBS vorta_params)
