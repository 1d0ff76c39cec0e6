// For the front end alone: the end of AFS's use from outside its operations.
#pragma once

namespace dolm {

// Leaves dfs_context without a store until the next dfs_init, and its device without the image. The
// image is not looked at; it may be gone by now.
void take_afs_out_of_use();

} // namespace dolm
