/* Functions of a host with the names of the library's own. Those of the library's calls to itself
 * must not reach it; the device functions must, every time. */
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void fail(const char *what) {
    fprintf(stderr, "%s\n", what);
    abort();
}

void flush(void) {
    fail("the library called the host's flush");
}
void deleteFile(void) {
    fail("the library called the host's deleteFile");
}
void crc8(void) {
    fail("the library called the host's crc8");
}
void crc16(void) {
    fail("the library called the host's crc16");
}
void cache_flush(void) {
    fail("the library called the host's cache_flush");
}

extern uint8_t *gpBuffer; /* the library's: the AFS image, which the host took from malloc */

/* The image as the writes and erases seen here make it. */
static uint8_t *expected;

__attribute__((destructor)) static void check_calls(void) {
    if (expected == NULL) {
        fail("the library did not call the host's device functions");
    }
}

static void check_image(void) {
    const size_t size = malloc_usable_size(gpBuffer);
    if (expected == NULL) {
        expected = malloc(size);
        if (expected == NULL) {
            fail("no memory");
        }
        memcpy(expected, gpBuffer, size);
    }
    if (memcmp(expected, gpBuffer, size) != 0) {
        fail("the library wrote past the host's device functions");
    }
}

uint32_t SpiDrvWrite(uint32_t address, uint32_t length, const void *buffer) {
    check_image();
    memcpy(expected + address, buffer, length);
    memcpy(gpBuffer + address, buffer, length);
    return 0;
}

uint32_t SpiDrvEraseBlock(uint32_t address) {
    check_image();
    memset(expected + address, 0xFF, 4096);
    memset(gpBuffer + address, 0xFF, 4096);
    return 0;
}
