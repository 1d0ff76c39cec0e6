// The whole exported surface of the library in one header.
#ifndef DOLM_STORAGE_LIB_H
#define DOLM_STORAGE_LIB_H

#include "FCS.h"
#include "efs_tools_utils.h"

#endif
