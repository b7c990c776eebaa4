#!/bin/sh
# check_headers_alone.sh CC CXX INCLUDE_DIR... : every public header, included
# alone and first, compiles without a warning in strict C11 and in C++17 with
# -pedantic, as a consumer with strict flags builds it.
cc=$1 cxx=$2; shift 2
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
incs="" n=0 status=0
for d in "$@"; do incs="$incs -I$d"; done
for d in "$@"; do
    for h in "$d"/ibp/*.h; do
        name=$(basename "$h")
        printf '#include <ibp/%s>\nint main(void) { return 0; }\n' "$name" >"$tmp/alone.c"
        cp "$tmp/alone.c" "$tmp/alone.cpp"
        # shellcheck disable=SC2086
        "$cc" -std=c11 -Wall -Wextra -Wstrict-prototypes -pedantic -Werror $incs -fsyntax-only "$tmp/alone.c" ||
            { echo "$name: C11 warns or fails"; status=1; }
        # shellcheck disable=SC2086
        "$cxx" -std=c++17 -Wall -Wextra -pedantic -Werror $incs -fsyntax-only "$tmp/alone.cpp" ||
            { echo "$name: C++17 warns or fails"; status=1; }
        n=$((n + 1))
    done
done
[ $n -gt 0 ] || { echo "no header found"; exit 1; }
[ $status -eq 0 ] && echo "$n headers alone, C11 and C++17, no warning"
exit $status
