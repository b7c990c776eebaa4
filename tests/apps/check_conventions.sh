#!/bin/sh
# check_conventions.sh CASES NAME VERSION PROGRAM [ARGS...]
# Runs PROGRAM (with ARGS before each case's argument, such as an emulator's
# program name) once per line of CASES, and of usage_NAME.txt beside it if
# there is one, and compares its exit status and both streams with the line.
# An argument that ends in " >/dev/full" has its standard output lost there.
cases=$1 name=$2 version=$3; shift 3
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
fill() { printf '%s' "$1" | sed "s/@NAME@/$name/g; s/@VERSION@/$version/g"; }
cat "$cases" "${cases%/*}/usage_$name.txt" >"$tmp/cases" 2>/dev/null
status=0 n=0
while IFS='|' read -r arg want_rc want_out want_err; do
    case $arg in '#'*|'') continue ;; esac
    n=$((n + 1))
    out_to=$tmp/out && : >"$tmp/out"
    case $arg in *' >/dev/full') arg=${arg% >/dev/full} out_to=/dev/full ;; esac
    "$@" "$arg" >"$out_to" 2>"$tmp/err" </dev/null
    rc=$?
    out=$(tr '\n' ' ' <"$tmp/out" | sed 's/ $//') err=$(cat "$tmp/err")
    fail=""
    [ "$rc" = "$want_rc" ] || fail="exit status $rc, not $want_rc"
    # shellcheck disable=SC2254
    case $out in $(fill "$want_out")) ;; *) fail="$fail; standard output: $(head -c 300 "$tmp/out")" ;; esac
    [ "$(fill "$want_err")" = "$err" ] || fail="$fail; standard error: $err"
    [ -z "$fail" ] || { echo "$name $arg: ${fail#; }"; status=1; }
done <"$tmp/cases"
[ $n -gt 0 ] || { echo "no cases in $cases"; exit 1; }
[ $status -eq 0 ] && echo "$name: $n cases as expected"
exit $status
