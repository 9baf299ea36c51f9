set(VORTA_FAMILY_LIBS vorta_params)
