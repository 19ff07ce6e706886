/*
 * Asks the diagnosis service for its version and for what it can detect.
 *
 *     cc -std=c11 c_client.c $(pkg-config --cflags --libs veyrasvc) -o c_client
 *
 * Needs a host (`veyra serve`) and the service (`veyra-diagnosisd`).
 */
#include "veyrasvc/diagnosis/DFSClientC.h"

#include <stdio.h>
#include <stdlib.h>

/* Any number that no other module of the machine uses. */
#define MY_MODULE 0x60010

static int fail(const char* what) {
    fprintf(stderr, "c_client: %s\n", what);
    return EXIT_FAILURE;
}

static int ask(DFSClientHandle client) {
    char version[DFS_VERSION_SIZE] = "";
    if (CGetSdkVersion(client, version) != 0 || version[0] == '\0') {
        return fail("no answer; are a host and the diagnosis service running?");
    }
    printf("version %s\n", version);

    const CDiagnosisDeviceInfo this_machine = {0};
    CStringList detects = {0};
    if (CGetDetectCapability(client, &this_machine, &detects) != 0 || detects.count == 0) {
        return fail("the service does not tell what it detects");
    }
    for (int32_t i = 0; i < detects.count; ++i) {
        printf("detects %s\n", detects.items[i]);
    }
    return EXIT_SUCCESS;
}

int main(void) {
    DFSClientHandle client = DFSClientCreate(MY_MODULE);
    if (client == NULL) {
        return fail("no memory");
    }
    const int result = ask(client);
    DFSClientDestroy(client);
    return result;
}
