// Spells out the 256 initialisers of a plain C array, which cannot be initialised from a
// std::array: DOLM_REPEAT_256(f) is f(0), f(1) ... f(255).
#pragma once

#define DOLM_REPEAT_4(f, i) f(i), f((i) + 1), f((i) + 2), f((i) + 3)
#define DOLM_REPEAT_16(f, i)                                                                       \
    DOLM_REPEAT_4(f, i), DOLM_REPEAT_4(f, (i) + 4), DOLM_REPEAT_4(f, (i) + 8),                     \
        DOLM_REPEAT_4(f, (i) + 12)
#define DOLM_REPEAT_64(f, i)                                                                       \
    DOLM_REPEAT_16(f, i), DOLM_REPEAT_16(f, (i) + 16), DOLM_REPEAT_16(f, (i) + 32),                \
        DOLM_REPEAT_16(f, (i) + 48)
#define DOLM_REPEAT_256(f)                                                                         \
    DOLM_REPEAT_64(f, 0), DOLM_REPEAT_64(f, 64), DOLM_REPEAT_64(f, 128), DOLM_REPEAT_64(f, 192)
