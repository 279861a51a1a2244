/* The module is the whole of trovcore, linked in whole; this unit only gives the target a source. */
