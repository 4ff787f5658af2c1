// The number of the last failed platform call: the thread's errno, which every function of the host
// platform sets when it fails. The numbers differ between machines; they are for reports only.
#include <cerrno>

#include "platform/sil_process.h"

int32_t errnoGet(void) {
    return errno;
}
