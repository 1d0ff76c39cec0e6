#include <memory_utils.h>
#include <qoqfs.h>

int main(void) {
    uint8_t copy[4];
    const bool copied = ByteCopy(copy, sizeof copy, "abcd", sizeof copy) == BYTE_COPY_OK;
    return copied && qoQfsGetEfsSize() == 49152 && !qoQfsDolmInit(0, 0) ? 0 : 1;
}
