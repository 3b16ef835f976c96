/* A minimal daemon: opens the library, queues two configuration commands,
 * asks the service for a result, flushes, waits briefly for notices and
 * closes. Run it against the emulated device, or on the device itself. */
#include <l2vfib.h>
#include <poll.h>
#include <stdio.h>

static uint32_t on_notice(uint32_t kind, uint32_t *value) {
    printf("notice %u: value 0x%08x\n", kind, *value);
    return 0;
}

int main(void) {
    int32_t fd = L2VFIB_Open(on_notice);
    if (fd < 0) {
        fprintf(stderr, "basic_daemon: no forwarding service to open\n");
        return 1;
    }

    /* Command 20 is always batched; command 57 too. Both take 32-bit numbers. */
    uint32_t instance = 100;
    uint32_t limit = 4096;
    uint32_t rc = L2VFIB_Send_Cfg(fd, 20, 0, &instance, NULL);
    if (rc == L2VFIB_OK) rc = L2VFIB_Send_Cfg(fd, 57, 0, NULL, &limit);
    if (rc == L2VFIB_OK) rc = L2VFIB_FlushEntry(fd);
    printf("queued and flushed: 0x%08x\n", rc);

    /* Command 18 is answered: the result is the service's own number. */
    rc = L2VFIB_Send_Cfg(fd, 18, 0, &instance, NULL);
    printf("command 18 answered: 0x%08x\n", rc);

    struct pollfd p = {.fd = fd, .events = POLLIN};
    while (poll(&p, 1, 1000) > 0) {
        if (L2VFIB_HandleMsg(fd) != L2VFIB_OK) break;
    }
    return L2VFIB_Close(fd) == 0 ? 0 : 1;
}
