#include <DolmStorageLib.h>

int main() {
    VynErrors::init();
    return VynErrors::getErrorNameString(IMAGE_TOOLS_FILE_NOT_FOUND) == "File not found." ? 0 : 1;
}
