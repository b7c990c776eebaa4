#!/bin/sh
# check_weak_aliases.sh NM LIBRARY COUNT
# The dynamic symbol table of LIBRARY holds COUNT weak ISP_/IMG_ functions,
# each at the address of the global function of the same name with a leading
# underscore, and no underscore function without its weak alias.
nm_tool=$1 lib=$2 want=$3
syms=$("$nm_tool" -D --defined-only "$lib") || exit 1
printf '%s\n' "$syms" | awk -v want="$want" '
    $2 == "W" && $3 ~ /^(ISP|IMG)_/ { weak[$3] = $1; nweak++ }
    $2 == "T" && $3 ~ /^_(ISP|IMG)_/ { strong[substr($3, 2)] = $1 }
    END {
        bad = 0
        for (n in weak) {
            if (!(n in strong)) { print "weak " n " has no global _" n; bad = 1 }
            else if (strong[n] != weak[n]) { print n " at " weak[n] " but _" n " at " strong[n]; bad = 1 }
        }
        for (n in strong)
            if (!(n in weak)) { print "_" n " has no weak alias " n; bad = 1 }
        if (nweak != want) { print nweak + 0 " weak aliases, expected " want; bad = 1 }
        if (!bad) print nweak " weak aliases, each at the address of its underscore name"
        exit bad
    }'
