/* A C program built against the installed library: with no device to
 * talk to, every entry point reports the documented failure. */
#include <l2vfib.h>
#include <stdio.h>
#include <string.h>

static int failures;

static void expect(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "consumer: %s\n", what);
        failures++;
    }
}

int main(void) {
    uint32_t value = 7;
    expect(L2VFIB_Open(NULL) == -1, "open without a service must fail");
    expect(L2VFIB_Send_Cfg(3, 18, 1, &value, NULL) == L2VFIB_ERR_NOT_OPEN,
           "send before open must answer not open");
    expect(L2VFIB_FlushEntry(3) == L2VFIB_ERR_NOT_OPEN, "flush before open must answer not open");
    expect(L2VFIB_HandleMsg(3) == L2VFIB_ERR_NOT_OPEN, "notice before open must answer not open");
    expect(L2VFIB_AllocECID(18, &value, NULL) == -1, "allocation before open must fail");
    expect(L2VFIB_CheckVlanRange(0x8000, 0, NULL) == L2VFIB_ERR_FAIL,
           "VLAN range check without data must fail");
    expect(L2VFIB_Start(0x8000, 1) != 0, "start without a device must fail");
    expect(strcmp(l2vfib_result_name(L2VFIB_ERR_NOT_OPEN), "the library is not open") == 0,
           "a result code must have its name");
    if (failures == 0) puts("consumer: ok");
    return failures == 0 ? 0 : 1;
}
