// Makes operator new fail at a chosen allocation. Link failing_new.cpp to use it.
#pragma once

// Allocations that still succeed; negative: all of them.
extern long allocations_left;
