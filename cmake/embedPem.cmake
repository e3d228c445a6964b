# Turns a PEM file into a C++ source defining the pinned authority text.
file(READ "${PEM}" pem)
file(WRITE "${OUT}.tmp" "// Generated from ${PEM}.\n#include \"pinnedCa.h\"\nconst char* const PINNED_CA_PEM = R\"PEM(${pem})PEM\";\n")
file(RENAME "${OUT}.tmp" "${OUT}")
