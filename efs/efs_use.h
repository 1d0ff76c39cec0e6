// For the front end alone: the end of EFS's use from outside its operations.
#pragma once

namespace dolm::efs {

// Leaves EFS unmounted and without an image. The image is not looked at; it may be gone by now.
void take_out_of_use();

} // namespace dolm::efs
