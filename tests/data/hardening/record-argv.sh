#!/bin/sh
# A stand-in for tftp, wget or tar that records the argument list it was given, for the tests
# that check what reaches a tool's command line. Put first on the tool path with
#   Kt::Shell::SET_TOOL("wget", {"/bin/sh", ".../record-argv.sh", "0"})
# (the tool's own arguments follow the prefix).
#
#   record-argv.sh N [WORD...] ARGUMENT...
#
# Appends to the file named by PROV_ARGV_LOG the line "argc <count>", then each ARGUMENT on a
# line of its own. With N = 0 it then exits with status 1; with N = 1 or 2 the N WORDs are the
# real program (e.g. "/bin/busybox tftp"), which is run with the arguments in its place, so that
# the transfer still happens.
count=$1
shift
case "$count" in
    0) ;;
    1) first=$1; shift ;;
    2) first=$1; second=$2; shift 2 ;;
    *) echo "record-argv.sh: bad word count '$count'" >&2; exit 2 ;;
esac
if [ -z "$PROV_ARGV_LOG" ]; then
    echo "record-argv.sh: PROV_ARGV_LOG is not set" >&2
    exit 2
fi
{
    printf 'argc %d\n' "$#"
    for argument in "$@"; do
        printf '%s\n' "$argument"
    done
} >>"$PROV_ARGV_LOG"
case "$count" in
    0) exit 1 ;;
    1) exec "$first" "$@" ;;
    2) exec "$first" "$second" "$@" ;;
esac
