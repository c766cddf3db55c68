#!/usr/bin/env bash
# Runs the recording, reading and remuxing suites under valgrind's memcheck and fails on any
# leak or memory error. Usage: tests/memcheck.sh BUILD_DIR (a build without sanitizers);
# MEMCHECK_SUITES="a_test b_test" runs only those.
# Counting the process's write calls means nothing under valgrind, which writes its log from
# the same process: that test is left out here.
set -euo pipefail
build=${1:?usage: tests/memcheck.sh BUILD_DIR}
suites=(${MEMCHECK_SUITES:-writer_test interleave_test moov_at_start_test stored_sample_test reader_test
        fragments_writer_test fragments_test remux_test cpp_layer_test})
status=0
for suite in "${suites[@]}"; do
    log=$build/memcheck_$suite.log
    if valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite,indirect,possible \
            --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=99 \
            --child-silent-after-fork=yes --log-file="$log" \
            "$build/$suite" --gtest_brief=1 --gtest_filter='-*WritesTheMediaSize*' >"$log.out" 2>&1; then
        echo "memcheck $suite: $(grep -E 'ERROR SUMMARY' "$log" | sed 's/==[0-9]*== //')"
    else
        echo "!! memcheck $suite failed (exit $?); see $log and $log.out"
        grep -E 'definitely|indirectly|possibly|Invalid|uninitialised|ERROR SUMMARY' "$log" | head -n 20
        status=1
    fi
done
exit $status
