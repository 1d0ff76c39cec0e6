// The whole exported surface of the library in one header.
#ifndef DOLM_STORAGE_LIB_H
#define DOLM_STORAGE_LIB_H

#include "Afs.h"
#include "AfsCache.h"
#include "AfsCrc.h"
#include "AfsFrameworkWin32.h"
#include "AfsFtl.h"
#include "AfsPhysical.h"
#include "AfsPhysicalWin32Spi.h"
#include "Directory.h"
#include "EFS.h"
#include "EFS_phy_win32.h"
#include "FCS.h"
#include "File.h"
#include "FileIterator.h"
#include "IFile.h"
#include "dfs.h"
#include "efs_tools_utils.h"
#include "memory_utils.h"
#include "miniVfs.h"
#include "qoqfs.h"
#include "vynerrors.h"

#endif
