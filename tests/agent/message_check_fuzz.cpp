/* The message check under libFuzzer, beside the same oracle as its test. With clang:
 *
 *   cmake -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DZAN_FUZZ=ON
 *   ninja -C build-fuzz message_check_fuzz
 *   build-fuzz/bin/message_check_fuzz -max_len=16384 tests/agent/corpus
 */
#include "message_invariants.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string broken = check_raw_batch(data, size);
    if (!broken.empty()) {
        fprintf(stderr, "broken: %s\n", broken.c_str());
        abort();
    }
    return 0;
}
