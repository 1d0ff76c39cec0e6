// The checksums of the AFS on-flash records. A length of 0 or less runs over no data byte.
#ifndef DOLM_AFS_CRC_H
#define DOLM_AFS_CRC_H

#include <cstdint>

#include "dolm_api.h"

DOLM_EXTERN_C_BEGIN

// The byte table of crc8 by nibbles: entry i belongs to byte i and to byte i * 16.
extern DOLM_API const uint8_t gCrc8_low[16];
extern DOLM_API const uint8_t gCrc8_high[16];

// CRC-8, polynomial 0x07, most significant bit first, start 0x01, no final XOR. It covers the first
// 16 bytes of an EU header.
DOLM_API uint32_t crc8(const void *data, int32_t length);

// The CRC-16 register of crc16, started at 0x3FFF and cut to 14 bits after every byte; no true
// 14-bit CRC. It chains the entries of a page log.
DOLM_API uint32_t crc14(const void *data, int32_t length);

// CRC-16/CCITT-FALSE over length bytes of data and then the two bytes at tail, which need not lie
// behind them. Every page on flash carries it, with its page number as the tail, low byte first.
DOLM_API uint32_t crc16(const void *data, int32_t length, const void *tail);

DOLM_EXTERN_C_END

#endif
