#include "vynerrors.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "frontend/report.h"

std::map<ImageToolsErrorName, std::string> VynErrors::s_imageToolsErrorNameStringMap;
std::map<ImageToolsErrorType, std::string> VynErrors::s_imageToolsErrorTypeStringMap;

namespace {

constexpr char no_row[] = "General Error";

struct catalogue_row {
    ImageToolsErrorName number;
    const char *text;
};

// The catalogue is shared with other components of the host tool, which raise the numbers between.
constexpr catalogue_row catalogue[] = {
    {IMAGE_TOOLS_NO_ERROR, "No Error"},
    {IMAGE_TOOLS_INITIALIZE_ERROR, "Initialize Error"},
    {IMAGE_TOOLS_FILE_NOT_FOUND, "File not found."},
    {IMAGE_TOOLS_FILE_WRITE_ERROR, "Error writing to file."},
    {IMAGE_TOOLS_BUFFER_PARSING_ERROR, "Detected error in buffer parsing operation."},
    {IMAGE_TOOLS_INVALID_DATA_POINTER, "Invalid data pointer."},
    {IMAGE_TOOLS_OUT_OF_MEMORY, "Out of memory."},
    {IMAGE_TOOLS_FCS_REMOVE_ENTRY_FAILED, "Unable to remove file entry from FCS table."},
    {IMAGE_TOOLS_QFS_NOT_INITIALIZED, "QFS was not initialized."},
    {IMAGE_TOOLS_FCS_NOT_INITIALIZED, "FCS was not initialized."},
    {IMAGE_TOOLS_FCS_ENTRIES_FAILED, "Failed to process FCS entries."},
    {IMAGE_TOOLS_FCS_DUPLICATE_LABEL, "Detected duplicate special file label."},
    {IMAGE_TOOLS_FCS_ENTRY_IN_USE, "FileEntry already being used by another FCS table."},
    {IMAGE_TOOLS_FCS_CREATE_HANDLE_FAILED, "Failed to create FCS handle."},
    {IMAGE_TOOLS_FCS_GET_FILE_FAILED, "Failed to get file from FCS."},
    {IMAGE_TOOLS_FCS_GET_ATTRIBUTES_FAILED, "Failed to get file file attributes from FCS."},
    {IMAGE_TOOLS_FCS_ADD_FILE_FAILED, "Failed to add new file to FCS."},
    {IMAGE_TOOLS_FCS_DELETE_FILE_FAILED, "Failed to delete frile from FCS."},
    {IMAGE_TOOLS_FCS_FLUSH_FAILED, "Failed to flush FCS buffer into memory."},
    {IMAGE_TOOLS_FCS_INVALID_FILE, "Invalid FCS file"},
    {IMAGE_TOOLS_QFS_TERMINATE_FAILED, "Failed to terminate QFS library."},
    {IMAGE_TOOLS_QFS_GET_SIZE_FAILED, "Failed to get file size from QFS."},
    {IMAGE_TOOLS_QFS_DELETE_FILE_FAILED, "Failed to delete file from QFS."},
    {IMAGE_TOOLS_TARN_DECOMPOSE_FAILED, "Failed to decompose Tarn image."},
    {IMAGE_TOOLS_QFS_INIT_FAILED, "Failed to initialize QFS."},
    {IMAGE_TOOLS_EFS_INIT_FAILED, "Failed to initialize EFS."},
    {IMAGE_TOOLS_ORVEL_CFG_LOAD_FAILED, "Failed to load Orvel.cfg table."},
    {IMAGE_TOOLS_VYN_CFG_LOAD_FAILED, "Failed to load Vyn.cfg table."},
    {IMAGE_TOOLS_CURRENT_VALUES_CREATE_FAILED, "Failed to create the current values table."},
    {IMAGE_TOOLS_CURRENT_VALUES_GENERATE_FAILED, "Failed to generate the current values table."},
    {IMAGE_TOOLS_VYN_CFG_CREATE_FAILED, "Failed to create new Vyn.cfg table."},
    {IMAGE_TOOLS_NVAR_ACCESS_ERROR, "NVAR Access error."},
    {IMAGE_TOOLS_CORRUPTED_BUFFER, "Corrupted Buffer Detected."},
    {IMAGE_TOOLS_FTBL_LOAD_FAILED, "Failed to load ftbl file."},
    {IMAGE_TOOLS_MAX_VALUE, "Max value excceded."},
};

// In the order of their numbers, from 0.
constexpr const char *source_tags[] = {
    "No Error",
    "[Action Processor] ",
    "[Bin Actions] ",
    "[Vyn Converter] ",
    "[Tarn Binary Gen] ",
    "[Vyn Actions] ",
    "[Vyn File I/O] ",
    "[Vyn Utils] ",
    "[Framework C Lib] ",
    "[QO Util] ",
    "[Xml Processor] ",
    "[Vyn] ",
    "[Ruv Utils] ",
    "[Pelm Actions] ",
    "[Kos Actions] ",
    "[Wend Controller] ",
    "[GPIO Actions] ",
    "[QO QFS] ",
    "[Nvar Actions] ",
    "[Manifest] ",
    "[Manifest Actions] ",
    "[Crypto Actions] ",
    "[TARN Actions] ",
    "[Elf Actions] ",
    "[Huffman Utils] ",
    "[System Resources] ",
    "[SysCall Actions] ",
    "[Image Utils] ",
    "[Image Metadata Generator] ",
    "[DOLM Metadata] ",
};

} // namespace

bool VynErrors::init() {
    initStringMaps();
    return true;
}

void VynErrors::initStringMaps() {
    decltype(s_imageToolsErrorNameStringMap) names;
    for (const catalogue_row &row : catalogue) {
        names[row.number] = row.text;
    }
    decltype(s_imageToolsErrorTypeStringMap) types;
    int32_t number = IMAGE_TOOLS_ERROR_TYPE_NONE;
    for (const char *tag : source_tags) {
        types[static_cast<ImageToolsErrorType>(number++)] = tag;
    }
    s_imageToolsErrorNameStringMap = std::move(names);
    s_imageToolsErrorTypeStringMap = std::move(types);
}

std::string VynErrors::getErrorNameString(ImageToolsErrorName number) {
    const auto row = s_imageToolsErrorNameStringMap.find(number);
    return row == s_imageToolsErrorNameStringMap.end() ? no_row : row->second;
}

const char *dolm::frontend::catalogue_text(ImageToolsErrorName number) noexcept {
    const auto &texts = VynErrors::s_imageToolsErrorNameStringMap;
    if (const auto row = texts.find(number); row != texts.end()) {
        return row->second.c_str();
    }
    // The maps are empty only where there was no memory for them at the first start-up.
    const auto row = std::find_if(
        std::begin(catalogue), std::end(catalogue),
        [number](const catalogue_row &candidate) { return candidate.number == number; });
    return texts.empty() && row != std::end(catalogue) ? row->text : no_row;
}
