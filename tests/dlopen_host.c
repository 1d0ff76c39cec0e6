/* Loads the shared library at run time and goes the whole way with qoqfs.h alone: start-up on a
 * set, read, resize, change, termination, rebuilt store, and a second start-up that shows the
 * change.
 *
 * Usage: dlopen_host LIBRARY FOLDER SKU NAME */
#ifdef _WIN32
#include <windows.h>
#define dlopen(path, flags) ((void *)LoadLibraryA(path))
#define dlsym(library, name) ((void *)(uintptr_t)GetProcAddress((HMODULE)(library), name))
#define dlclose(library) FreeLibrary((HMODULE)(library))
#else
#include <dlfcn.h>
#endif
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qoqfs.h"

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                        \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

static void on_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                      const char *message) {
    fprintf(stderr, "level %d, number %d: %s %s\n", (int)level, (int)number, text, message);
}

static _commonDolmTable load(const char *folder, const char *name) {
    char path[4096];
    _commonDolmTable table = {NULL, 0};
    snprintf(path, sizeof path, "%s/%s", folder, name);
    FILE *file = fopen(path, "rb");
    REQUIRE(file != NULL);
    fseek(file, 0, SEEK_END);
    table.size = (uint32_t)ftell(file);
    rewind(file);
    table.data = malloc(table.size);
    REQUIRE(table.data != NULL && fread(table.data, 1, table.size, file) == table.size);
    fclose(file);
    return table;
}

/* ISO C has no conversion from an object pointer to a function pointer. */
static void find(void *library, const char *name, void *function) {
    void *symbol = dlsym(library, name);
    REQUIRE(symbol != NULL);
    memcpy(function, &symbol, sizeof symbol);
}

int main(int argc, char **argv) {
    REQUIRE(argc == 5);
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    REQUIRE(library != NULL);
    bool (*init)(const _commonDolmInputs *, DolmStatusCallback);
    bool (*get)(const char *, uint8_t **, uint32_t *, FcsFileName, bool *, uint32_t *);
    bool (*resize)(const char *, uint8_t **, uint32_t);
    bool (*term)(bool);
    bool (*built)(uint8_t **, uint32_t *);
    find(library, "qoQfsDolmInit", &init);
    find(library, "qoQfsNvarGet", &get);
    find(library, "qoQfsNvarResize", &resize);
    find(library, "qoQfsNvarTerm", &term);
    find(library, "qoQfsGetBuildVynCfgFcsBuffer", &built);

    _commonDolmInputs inputs = {
        .orvelCfg = load(argv[2], "orvel.cfg"),
        .qfsImage = load(argv[2], "qfs.img"),
        .ftbl = load(argv[2], "ftbl.bin"),
        .afsSkuId = (uint32_t)strtoul(argv[3], NULL, 0),
        .efsImage = load(argv[2], "efs.img"),
    };
    uint8_t *data = NULL;
    uint32_t size = 0;
    REQUIRE(init(&inputs, on_report));
    REQUIRE(get(argv[4], &data, &size, FCS_FILE_CURRENT_VALUES, NULL, NULL));
    REQUIRE(resize(argv[4], &data, 3));
    memcpy(data, "new", 3);
    REQUIRE(term(true) && built(&data, &size) && size > 4);
    REQUIRE(term(false));

    REQUIRE(init(&inputs, on_report)); /* the value comes back from the flash */
    REQUIRE(get(argv[4], &data, &size, FCS_FILE_CURRENT_VALUES, NULL, NULL));
    REQUIRE(size == 3 && memcmp(data, "new", 3) == 0);
    REQUIRE(term(false));

    free(inputs.orvelCfg.data);
    free(inputs.qfsImage.data);
    free(inputs.ftbl.data);
    free(inputs.efsImage.data);
    dlclose(library);
    return 0;
}
