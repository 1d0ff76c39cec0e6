/* A small host: loads a set of inputs from a folder, shows one NVAR, gives it a new value, and
 * writes what changed back into the folder. The sets of "dolm sample" and "dolm build" have this
 * form.
 *
 * Usage: host FOLDER SKU NAME VALUE */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qoqfs.h"

enum { VYNC_HEAD_SIZE = 16, VYNC_LENGTH_OFFSET = 8 };

static void on_report(ErrorLevel level, ImageToolsErrorName number, const char *text,
                      const char *message) {
    fprintf(stderr, "level %d, number %d: %s %s\n", (int)level, (int)number, text, message);
}

static FILE *open_in(const char *folder, const char *name, const char *mode) {
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", folder, name);
    return fopen(path, mode);
}

/* The whole file; an empty range if there is none, which the library takes for an absent input. */
static _commonDolmTable load(const char *folder, const char *name) {
    _commonDolmTable table = {NULL, 0};
    FILE *file = open_in(folder, name, "rb");
    if (file == NULL) {
        return table;
    }
    fseek(file, 0, SEEK_END);
    const long size = ftell(file);
    rewind(file);
    table.data = size > 0 ? malloc((size_t)size) : NULL;
    if (table.data != NULL && fread(table.data, 1, (size_t)size, file) == (size_t)size) {
        table.size = (uint32_t)size;
    }
    fclose(file);
    return table;
}

static bool save(const char *folder, const char *name, const uint8_t *head, size_t head_size,
                 const uint8_t *bytes, size_t size) {
    FILE *file = open_in(folder, name, "wb");
    if (file == NULL) {
        return false;
    }
    const bool written = (head_size == 0 || fwrite(head, 1, head_size, file) == head_size) &&
                         fwrite(bytes, 1, size, file) == size;
    return fclose(file) == 0 && written;
}

static bool save_image(const char *folder, const char *name, const _commonDolmTable *image) {
    return image->size == 0 || save(folder, name, NULL, 0, image->data, image->size);
}

/* The rebuilt store comes without a head; the host puts one in front of it. */
static bool save_vync(const char *folder, const uint8_t *store, uint32_t size) {
    uint8_t head[VYNC_HEAD_SIZE] = {0};
    for (int i = 0; i < 4; ++i) {
        head[VYNC_LENGTH_OFFSET + i] = (uint8_t)(size >> 8 * i);
    }
    return save(folder, "vync.cfg", head, sizeof head, store, size);
}

static bool change_value(const char *name, const char *value) {
    uint8_t *data = NULL;
    uint32_t size = 0;
    bool writable = false;
    if (!qoQfsNvarGet(name, &data, &size, FCS_FILE_CURRENT_VALUES, &writable, NULL)) {
        return false;
    }
    printf("%s was \"%.*s\"%s\n", name, (int)size, size == 0 ? "" : (const char *)data,
           writable ? "" : ", and its file in the flash stays as it is");
    const size_t length = strlen(value);
    if (!qoQfsNvarResize(name, &data, (uint32_t)length)) {
        return false;
    }
    if (length != 0) {
        memcpy(data, value, length);
    }
    return true;
}

static bool run(const char *folder, _commonDolmInputs *inputs, const char *name,
                const char *value) {
    uint8_t *store = NULL;
    uint32_t size = 0;
    if (!qoQfsDolmInit(inputs, on_report) || !change_value(name, value) || !qoQfsNvarTerm(true) ||
        !qoQfsGetBuildVynCfgFcsBuffer(&store, &size)) {
        return false;
    }
    /* The library has changed the two images in place. */
    return save_vync(folder, store, size) && save_image(folder, "qfs.img", &inputs->qfsImage) &&
           save_image(folder, "efs.img", &inputs->efsImage);
}

int main(int argc, char **argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: %s FOLDER SKU NAME VALUE\n", argv[0]);
        return 2;
    }
    const char *folder = argv[1];
    _commonDolmInputs inputs = {
        .orvelCfg = load(folder, "orvel.cfg"),
        .vyncCfg = load(folder, "vync.cfg"),
        .qfsImage = load(folder, "qfs.img"),
        .ftbl = load(folder, "ftbl.bin"),
        .afsSkuId = (uint32_t)strtoul(argv[2], NULL, 0),
        .efsImage = load(folder, "efs.img"),
    };
    bool done = run(folder, &inputs, argv[3], argv[4]);
    if (qoFcsIsInitialized()) {
        done = qoQfsNvarTerm(false) && done;
    }
    free(inputs.orvelCfg.data);
    free(inputs.vyncCfg.data);
    free(inputs.qfsImage.data);
    free(inputs.ftbl.data);
    free(inputs.efsImage.data);
    return done ? 0 : 1;
}
