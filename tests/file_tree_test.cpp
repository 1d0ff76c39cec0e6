#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "Directory.h"
#include "File.h"
#include "FileIterator.h"
#include "builders.h"

using namespace builders;
using namespace image_editor;

namespace {

std::shared_ptr<File> make_file(const std::string &name, const std::string &payload = "") {
    const Bytes block = block_of({.fileno = 0x1234, .payload = payload, .opaque = 0xABCD}, 77);
    return std::make_shared<File>(block.data(), static_cast<uint32_t>(block.size()), name.c_str());
}

std::vector<std::string> names_of(const Directory &directory) {
    std::vector<std::string> names;
    for (const auto &child : directory.children) {
        names.emplace_back(child->name);
    }
    return names;
}

// Links a child as whoever builds a deeper tree has to.
void link(Directory &above, const std::shared_ptr<Directory> &child, const char *name) {
    std::strcpy(child->name, name);
    child->parent = &above;
    above.addFile("", child);
}

void link(Directory &above, const std::string &path, const char *name) {
    const auto file = make_file(name);
    file->parentPath = path;
    above.addFile("", file);
}

using Names = std::vector<std::string>;

TEST(FileTreeTest, AFileOwnsACorrectedCopyOfItsBlock) {
    Bytes block = block_of({.fileno = 9, .payload = "abc", .opaque = 0x55AA}, 99);
    put16(block, 8, 40000);
    File file(block.data(), 15, (std::string(48, 'n') + "cut").c_str());
    block.assign(block.size(), 0);
    EXPECT_EQ(file.name, std::string(48, 'n'));
    EXPECT_EQ(reinterpret_cast<uint8_t *>(file.entry), file.block.data());
    EXPECT_EQ(file.block, block_of({.fileno = 9, .payload = "abc", .opaque = 0x55AA}, 99));
    EXPECT_EQ(file.getSize(), 15u);
    EXPECT_EQ(make_file("empty")->getSize(), 12u);
    EXPECT_EQ(file.getFullPath(), file.name);
    file.parentPath = "up";
    EXPECT_EQ(file.getFullPath(), std::string("up/") + file.name);
    EXPECT_EQ(file.parent, nullptr);

    std::shared_ptr<IFile> out;
    EXPECT_FALSE(file.isDirectory() || file.addFile("", make_file("x")) || file.deleteFile("x") ||
                 file.getFile(file.name, &out));

    const Bytes longest(12 + 65536 + 5);
    File wrapped(longest.data(), static_cast<uint32_t>(longest.size()), "long");
    std::vector<_cfg_file_entry_t> entries;
    Bytes data;
    wrapped.serialize(entries, data);
    EXPECT_EQ(entries.at(0).size, 5) << "the size field keeps the low 16 bits";
    EXPECT_EQ(data.size(), 5u);

    EXPECT_THROW(File(block.data(), 11, "short"), std::invalid_argument);
    EXPECT_THROW(File(nullptr, 12, "null"), std::invalid_argument);
    EXPECT_THROW(File(block.data(), 12, nullptr), std::invalid_argument);
}

TEST(FileTreeTest, ADirectoryKeepsItsChildrenInByteOrder) {
    Directory root;
    EXPECT_EQ(root.getSize(), 0u);
    EXPECT_FALSE(root.addFile("", nullptr));
    for (const char *name : {"b", "a/", "\xC3\xA9", "a", "", "b", "a.x", "B", "ab"}) {
        EXPECT_TRUE(root.addFile("any/path", make_file(name, "12")));
    }
    EXPECT_EQ(names_of(root), (Names{"", "B", "a", "a.x", "a/", "ab", "b", "b", "\xC3\xA9"}));
    EXPECT_EQ(root.getSize(), 9 * 14u);

    // A directory with a name writes a record of its own, whose offset is 0.
    const Bytes block = block_of({.fileno = 1, .payload = "xyz"}, 88);
    const auto inner = std::make_shared<Directory>(block.data(), 15);
    EXPECT_TRUE(inner->isDirectory());
    EXPECT_EQ(inner->getSize(), 15u);
    link(root, inner, "inner");
    EXPECT_EQ(root.getSize(), 9 * 14u + 15u + 12u);
    for (int round = 0; round < 2; ++round) {
        std::vector<_cfg_file_entry_t> entries;
        Bytes data;
        root.serialize(entries, data);
        EXPECT_EQ(data.size(), 9 * 2u);
        ASSERT_EQ(entries.size(), 10u);
        EXPECT_EQ(std::tuple(entries[8].fileno, entries[8].offset), std::tuple(1u, 0u));
        EXPECT_EQ(entries[9].offset, 16u) << "round " << round;
    }
}

TEST(FileTreeTest, GetFileTakesTheWholePathAndDeleteFileItsComponents) {
    Directory root;
    for (const char *name : {"a/b", "abc", "dup", "dup", "leaf"}) {
        root.addFile("", make_file(name));
    }
    const auto inner = std::make_shared<Directory>();
    link(root, inner, "dir");
    link(*inner, "dir", "x");

    std::shared_ptr<IFile> found;
    EXPECT_TRUE(root.getFile("a/b", &found));
    EXPECT_STREQ(found->name, "a/b");
    const auto kept = found;
    for (const char *path : {"a", "dir/x", "abc/", ""}) {
        EXPECT_FALSE(root.getFile(path, &found)) << path;
    }
    EXPECT_EQ(found, kept) << "a miss leaves the result alone";
    EXPECT_FALSE(root.getFile("a/b", nullptr));

    for (const char *path : {"a/b", "/abc", "", "/", "none", "leaf/x", "dir/none", "dir//x"}) {
        EXPECT_FALSE(root.deleteFile(path)) << path;
    }
    EXPECT_EQ(root.children.size(), 6u);
    EXPECT_TRUE(root.deleteFile("abc/"));
    EXPECT_TRUE(root.deleteFile("dup"));
    EXPECT_TRUE(root.deleteFile("dir/x"));
    EXPECT_EQ(names_of(root), (Names{"a/b", "dir", "dup", "leaf"}));
    EXPECT_TRUE(inner->children.empty());
}

TEST(FileIteratorTest, AFlatWalkEndsForGoodAndSurvivesAShrunkTree) {
    const auto root = std::make_shared<Directory>();
    FileIterator walk(root);
    EXPECT_EQ(walk.firstFile(), "");
    EXPECT_EQ(walk.nextFile(), "");
    for (const char *name : {"c", "a", "b"}) {
        root->addFile("", make_file(name));
    }
    EXPECT_EQ(walk.firstFile(), "a");
    EXPECT_EQ(walk.nextFile(), "b");
    EXPECT_EQ(walk.nextFile(), "c");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(walk.nextFile(), "");
    }
    root->deleteFile("b");
    root->deleteFile("c");
    EXPECT_EQ(walk.nextFile(), "");
    for (const int32_t stray : {INT32_MAX, INT32_MIN}) {
        walk.index = stray;
        EXPECT_EQ(walk.nextFile(), stray > 0 ? "" : "a");
    }
    FileIterator fresh(root);
    EXPECT_EQ(fresh.current, root.get());
    EXPECT_EQ(fresh.nextFile(), "") << "a new walk stands on the only file";

    for (const auto &leaf : {std::shared_ptr<IFile>(make_file("leaf")), std::shared_ptr<IFile>()}) {
        FileIterator none(leaf);
        EXPECT_EQ(none.current, nullptr);
        EXPECT_EQ(none.firstFile(), "");
        EXPECT_EQ(none.nextFile(), "");
    }
}

TEST(FileIteratorTest, ADeepWalkReportsADirectoryBeforeItsContents) {
    const auto root = std::make_shared<Directory>();
    const auto d = std::make_shared<Directory>();
    const auto e = std::make_shared<Directory>();
    const auto hollow = std::make_shared<Directory>();
    link(*root, d, "d");
    link(*root, hollow, "h");
    link(*root, "", "a");
    link(*root, "", "z");
    link(*d, e, "e");
    e->parentPath = "d";
    link(*e, "d/e", "x");
    link(*e, "d/e", "y");

    FileIterator walk(root);
    Names seen = {walk.firstFile()};
    for (std::string name = walk.nextFile(); !name.empty(); name = walk.nextFile()) {
        seen.push_back(name);
    }
    EXPECT_EQ(seen, (Names{"a", "d", "d/e", "d/e/x", "d/e/y", "h", "z"}));
    EXPECT_EQ(walk.current, root.get());
    EXPECT_EQ(walk.index, 3);

    // A directory that cannot be found again from below ends the walk at position -1.
    walk.current = e.get();
    walk.index = 1;
    std::strcpy(e->name, "renamed");
    std::strcpy(d->children[0]->name, "other");
    e->parent = root.get();
    EXPECT_EQ(walk.nextFile(), "");
    EXPECT_EQ(walk.current, e.get());
    EXPECT_EQ(walk.index, -1);
}

// A pointer to a virtual member holds 1 + the byte offset of its slot.
template <typename Member>
size_t slot(Member member) {
    size_t words[2];
    static_assert(sizeof(member) == sizeof(words));
    std::memcpy(words, &member, sizeof(words));
    return (words[0] - 1) / sizeof(void *);
}

TEST(FileTreeTest, VirtualOperationsKeepTheirSlots) {
    EXPECT_EQ(slot(&IFile::isDirectory), 0u);
    EXPECT_EQ(slot(&IFile::getSize), 1u);
    EXPECT_EQ(slot(&IFile::addFile), 2u);
    EXPECT_EQ(slot(&IFile::deleteFile), 3u);
    EXPECT_EQ(slot(&IFile::getFile), 4u);
    EXPECT_EQ(slot(&IFile::serialize), 5u);
}

} // namespace
