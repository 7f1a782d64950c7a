#include <vlk/system/process_barrier.hpp>

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vlk::system {

bool registerPrivateExpeditedBarrier() {
    return ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

void privateExpeditedBarrier() {
    ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

}  // namespace vlk::system
