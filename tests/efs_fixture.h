// A formatted EFS image for a test: its geometry comes through a file table, its bytes can be laid
// out at will, and the device double shows what the store does to it.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "EFS.h"
#include "common/little_endian.h"
#include "proof/builders.h"
#include "proof/device.h"

namespace dolm_test {

using namespace dolm::proof;

using builders::Geometry;
using dolm::Bytes;

// One file alone in its block, two in one block, one over two blocks with another behind its second
// record that goes on in a third, one at the last offset, and one beyond the last block.
inline const std::vector<builders::EfsRecord> efs_sample_files = {
    {0, 0, 0, 4068}, {5, 0, 4072, 0},    {1, 1, 0, 1000},   {2, 1, 1004, 500}, {8, 2, 100, 3972},
    {3, 3, 0, 5000}, {9, 4, 1000, 7144}, {4, 6, 0, 0xFFFF}, {7, 7, 0, 10},
};

inline Bytes efs_pattern(uint32_t length, uint32_t seed) {
    Bytes bytes(length);
    for (uint32_t i = 0; i < length; ++i) {
        bytes[i] = static_cast<uint8_t>((i * 31 + seed * 17) ^ (i >> 8));
    }
    return bytes;
}

class EfsTest : public testing::Test {
  protected:
    void SetUp() override { start({}); }
    void TearDown() override { device().detach(); }

    static DeviceDouble &device() { return DeviceDouble::instance(); }

    static uint32_t load(Geometry wanted) {
        if (wanted.records.empty()) {
            wanted.records = efs_sample_files;
        }
        const Bytes table = builders::FileTable{{}, {wanted}}.build();
        return load_file_table(table.data(), wanted.sku, static_cast<uint32_t>(table.size()));
    }

    // A freshly formatted, mounted image.
    void start(const Geometry &wanted) {
        device().detach();
        geometry = wanted;
        ASSERT_EQ(load(geometry), 0u);
        image.assign(EFS_get_efs_size(), 0xFF);
        ASSERT_EQ(EFS_init_tools(image.data()), EFS_BAD_DATA);
        ASSERT_EQ(EFS_do_format(), EFS_OK);
        ASSERT_EQ(remount(), EFS_OK);
    }

    uint32_t remount() {
        const uint32_t status = EFS_init_tools(image.data());
        device().attach(image);
        return status;
    }

    static uint32_t write(uint32_t file, Bytes content) {
        const auto length = static_cast<uint32_t>(content.size());
        content.push_back(0); // data may not be null
        return EFS_write(file, 0, length, content.data());
    }

    Bytes read(uint32_t file, uint32_t offset = 0, uint32_t length = 0x10000) {
        Bytes content(length + 1); // never null
        last_status = EFS_read(file, offset, &length, content.data());
        content.resize(length);
        return content;
    }

    // "W9010+4076 " is a write of 4076 bytes at 0x9010; 'E' is an erase.
    static std::string event(char kind, uint32_t address, uint32_t length) {
        char text[32];
        std::snprintf(text, sizeof text, "%c%X+%u ", kind, address, length);
        return text;
    }
    // The erase of a data block.
    std::string erase_events(uint32_t number) const {
        const uint32_t at = (geometry.bm_num + number) * 4096;
        return event('W', at + 12, 4) + event('E', at, 4096) + event('W', at, 16);
    }
    // What the device saw since the last call.
    static std::string take_events() {
        std::string text;
        for (const DeviceEvent &seen : device().log()) {
            const bool is_write = seen.kind == DeviceEvent::Kind::write;
            text += event(is_write ? 'W' : 'E', seen.address, seen.length);
        }
        device().log().clear();
        return text;
    }

    // Makes `count` accesses of a kind go wrong, after `skip` more good ones.
    static void fault(DeviceAccess access, uint32_t skip, uint32_t count,
                      DeviceFault::Effect effect) {
        device().add_fault({access, device().count(access) + skip, count, effect});
    }

    uint8_t *bm(uint32_t index) { return &image[index * 4096]; }
    uint8_t *block(uint32_t number) { return bm(geometry.bm_num + number); }
    uint8_t *bme(uint32_t index, uint32_t slot) { return bm(index) + 16 + slot * (blocks() + 12); }
    uint32_t blocks() const { return geometry.valid_block_num + geometry.non_valid_block_num; }

    static void seal(uint8_t *bytes, uint32_t length) {
        dolm::store_le32(bytes + length, EFS_crc32(0, bytes, length));
    }

    void put_block_header(uint32_t number, uint32_t erase_count) {
        dolm::store_le32(block(number), erase_count);
        seal(block(number), 12);
    }

    Geometry geometry;
    Bytes image;
    uint32_t last_status = 0;
};

} // namespace dolm_test
