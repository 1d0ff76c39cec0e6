#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>

#include "Directory.h"
#include "File.h"
#include "FileIterator.h"
#include "common/little_endian.h"
#include "proof/builders.h"

namespace builders = dolm::proof::builders;

using dolm::Bytes;
using namespace builders;
using namespace image_editor;

namespace {

using Names = std::vector<std::string>;

// Adds a file as whoever builds a deeper tree by hand has to.
void add(Directory &above, const std::string &name, const std::string &path = "") {
    const Bytes block = block_of({.fileno = 7, .payload = "12"}, 77);
    const auto file = std::make_shared<File>(block.data(), 14, name.c_str());
    file->parentPath = path;
    EXPECT_TRUE(above.addFile("", file));
}

void add(Directory &above, const std::shared_ptr<Directory> &inner, const char *name) {
    std::strcpy(inner->name, name);
    inner->parent = &above;
    EXPECT_TRUE(above.addFile("", inner));
}

Names walk(FileIterator &at) {
    Names names;
    for (std::string name = at.firstFile(); !name.empty(); name = at.nextFile()) {
        names.push_back(name);
    }
    return names;
}

TEST(FileTreeTest, AFileOwnsACorrectedCopyOfItsBlock) {
    Bytes block = block_of({.fileno = 9, .payload = "abc", .opaque = 0x55AA}, 99);
    const Bytes correct = block;
    put16(block, 8, 40000);
    const File file(block.data(), 15, (std::string(48, 'n') + "cut").c_str());
    block.assign(block.size(), 0);
    EXPECT_EQ(file.block, correct);
    EXPECT_EQ(file.name, std::string(48, 'n'));
    EXPECT_THROW(File(block.data(), 11, "short"), std::invalid_argument);
    EXPECT_THROW(File(nullptr, 12, "null"), std::invalid_argument);
    EXPECT_THROW(File(block.data(), 12, nullptr), std::invalid_argument);
}

TEST(FileTreeTest, ADeepTreeIsWalkedSerialisedAndSearched) {
    const auto root = std::make_shared<Directory>();
    const auto d = std::make_shared<Directory>(block_of({1, "xyz"}, 88).data(), 15);
    const auto e = std::make_shared<Directory>();
    FileIterator at(root);
    EXPECT_EQ(walk(at), Names{});
    for (const char *name : {"z", "a/b", "\xC3\xA9", "z", "a.x", "B"}) {
        add(*root, name);
    }
    add(*root, d, "d");
    add(*d, e, "e");
    add(*e, "x", "d/e");
    e->parentPath = "d";
    EXPECT_EQ(walk(at), (Names{"B", "a.x", "a/b", "d", "d/e", "d/e/x", "z", "z", "\xC3\xA9"}));

    // A directory counts a record for its name, and writes the one in its block with the offset 0.
    EXPECT_EQ(root->getSize(), 7 * 14u + 2 * 12u + 15u);
    for (int round = 0; round < 2; ++round) {
        std::vector<_cfg_file_entry_t> entries;
        Bytes data;
        root->serialize(entries, data);
        ASSERT_EQ(entries.size(), 8u);
        // The records are little-endian on every host.
        const auto number = [&](size_t entry, size_t field) {
            return dolm::load_le32(reinterpret_cast<const uint8_t *>(&entries[entry]) + field);
        };
        constexpr size_t offset_at = offsetof(_cfg_file_entry_t, offset);
        EXPECT_EQ(std::pair(number(3, 0), number(3, offset_at)), std::pair(1u, 0u));
        EXPECT_EQ(number(4, offset_at), 6u) << "round " << round;
    }

    std::shared_ptr<IFile> found;
    EXPECT_TRUE(root->getFile("a/b", &found)) << "looks for the path as one name";
    EXPECT_FALSE(root->getFile("d/e", &found) || root->getFile("a/b", nullptr));
    EXPECT_STREQ(found->name, "a/b") << "a miss leaves the result alone";
    for (const char *path : {"a/b", "/z", "", "none", "z/x", "d/none", "d//e"}) {
        EXPECT_FALSE(root->deleteFile(path)) << path;
    }
    EXPECT_TRUE(root->deleteFile("d/e/x") && root->deleteFile("z/"));
    EXPECT_EQ(at.nextFile(), "") << "the walk stands behind the end of a shrunk tree";
    EXPECT_EQ(walk(at), (Names{"B", "a.x", "a/b", "d", "d/e", "z", "\xC3\xA9"}));

    at.index = -7; // a host may set it
    EXPECT_EQ(at.nextFile(), "B");

    // A directory that cannot be found again from below ends the walk at position -1.
    at.current = d.get();
    d->parent = e.get();
    EXPECT_EQ(at.nextFile(), "");
    EXPECT_EQ(std::pair(at.current, at.index), std::pair(d.get(), -1));
}

// A pointer to a virtual member starts with the byte offset of its slot, to which most systems
// add 1.
template <typename Member>
size_t slot(Member member) {
    size_t word = 0;
    std::memcpy(&word, &member, sizeof(word));
    return word / sizeof(void *);
}

TEST(FileTreeTest, VirtualOperationsKeepTheirSlots) {
    const size_t slots[] = {slot(&IFile::isDirectory), slot(&IFile::getSize),
                            slot(&IFile::addFile),     slot(&IFile::deleteFile),
                            slot(&IFile::getFile),     slot(&IFile::serialize)};
    for (size_t i = 0; i < std::size(slots); ++i) {
        EXPECT_EQ(slots[i], i);
    }
}

} // namespace
