#include "DolmStorageLib.h"
