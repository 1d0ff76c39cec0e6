// Resumable walk over a file tree.
#ifndef DOLM_FILE_ITERATOR_H
#define DOLM_FILE_ITERATOR_H

#include "Directory.h"

namespace image_editor {

// Walks a tree depth first: each directory is reported and then what it contains. To leave a
// directory it climbs the parent link and looks the directory up by name. The empty string means
// that there is nothing to report.
//
// It is not told of changes to the tree: after one, start again with firstFile.
class DOLM_API FileIterator {
  public:
    // Stands on the first file of tree, if that is a directory.
    explicit FileIterator(std::shared_ptr<IFile> tree);

    // Goes to the first child of root and returns its name.
    std::string firstFile();

    // Goes to the next node and returns its full path. After the last file of a flat tree every
    // further call returns the empty string.
    std::string nextFile();

    // As firstFile, without building the name. False if there is nothing to report.
    bool rewind() noexcept;

    std::shared_ptr<IFile> root; // the tree
    Directory *current;          // directory being walked, not owned; null before the first rewind
    int32_t index;               // position in current's children, -1 if it was not found again
};

} // namespace image_editor

#endif
