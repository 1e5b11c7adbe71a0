#!/bin/sh
# Fails when an instruction-set object file of the library exports a weak
# symbol whose name involves an unnamed namespace: the linker keeps one copy
# of such a symbol for every table, so one set's instructions would run in
# another set's entries (or on a processor without them).
# Usage: [NM=nm] tools/check_linkage.sh OBJECT... (or one list joined by ";",
# as CMake passes a target's objects; paths without blanks)
status=0
for object in $(echo "$@" | tr ';' ' '); do
    case "$object" in
        *_sse41.cpp.o | *_avx2.cpp.o | *_avx512.cpp.o | *_neon.cpp.o) ;;
        *) continue ;;
    esac
    shared=$("${NM:-nm}" -C "$object" | grep ' [WV] .*(anonymous namespace)')
    if [ -n "$shared" ]; then
        echo "$object: shared copies of unnamed-namespace code:"
        echo "$shared"
        status=1
    fi
done
exit $status
