// Process entry. The tasks do the work; the main thread sleeps for ever, whether start-up succeeded or
// not. Only arguments that were refused (or --help) and merged-process mode end the process here.
#include <unistd.h>

#include "core/pbr_start.h"
#include "platform/sil_process.h"

int main(int argc, char **argv) {
    const int32_t status = silProcessArguments(argc, argv);
    if (status != -1) {
        return status;
    }
    if (!pbrProcessStart()) {
        return 0;
    }
    for (;;) {
        sleep(10);
    }
}
