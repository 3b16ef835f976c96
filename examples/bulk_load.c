/* bulk_load: loads N entries of every batched family at start-up, the way
 * a daemon that restarts or takes over a device does, and keeps every one
 * when the service is busy.
 *
 *   bulk_load [N]     N entries of each family (default 100000)
 *
 * The pattern for a busy service: a direct entry function whose flush for
 * room is refused returns L2VFIB_ERR_FAIL having written nothing, with the
 * queue unchanged. The daemon then flushes with L2VFIB_FlushEntry, which
 * waits until the service takes the batch, and calls the same function
 * once more; the area is empty then, so a second refusal is a real fault.
 * It prints each family's rate and how often it had to wait. */
#include <l2vfib.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static int32_t fd;
static unsigned long retries;

/* One queued call, with the busy pattern around it. */
static int queue(uint32_t rc, const char *what, uint32_t (*again)(const void *), const void *args) {
    if (rc == L2VFIB_OK) return 1;
    retries++;
    if (L2VFIB_FlushEntry(fd) != L2VFIB_OK) {
        fprintf(stderr, "bulk_load: %s: the service is gone\n", what);
        return 0;
    }
    rc = again(args);
    if (rc != L2VFIB_OK) fprintf(stderr, "bulk_load: %s refused: 0x%08x\n", what, rc);
    return rc == L2VFIB_OK;
}

static double seconds(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Each family's call on entry i, as a function the pattern can repeat. */
struct args {
    uint32_t i;
    const uint8_t *block;
    uint16_t length;
};

static uint32_t add_pw(const void *p) {
    const struct args *a = p;
    L2VFIB_EntryKey key = {.id = a->i, .subId = 1};
    return L2VFIB_AddPwEntry(fd, 8, &key, a->block, a->length);
}

static uint32_t add_minm(const void *p) {
    const struct args *a = p;
    L2VFIB_EntryKey key = {.id = a->i, .subId = 2};
    return L2VFIB_AddMinMEntry(fd, 8, 5, &key, a->block, a->length);
}

static uint32_t add_ac(const void *p) {
    const struct args *a = p;
    L2VFIB_EntryKey key = {.id = a->i, .subId = 3};
    L2VFIB_AcInfo info = {.half0 = 100, .word0 = a->i, .byte0 = 1, .word1 = 9, .half1 = 10, .half2 = 20};
    return L2VFIB_AddAcEntry(fd, &key, &info, NULL);
}

static uint32_t add_tunnel(const void *p) {
    const struct args *a = p;
    L2VFIB_OverlayTunnelEntry t = {.tunnelKey = {a->i, 1}, .tunnelAttr = {3, 4, 5, 6}};
    return L2VFIB_AddOverlayTunnel(fd, 5, &t);
}

static uint32_t add_ebg(const void *p) {
    const struct args *a = p;
    L2VFIB_EbgKey ebg = {.ebgId = a->i};
    uint32_t members[4] = {1, 2, 3, a->i};
    return L2VFIB_AddEBGMember(fd, 8, &ebg, members, 4);
}

static uint32_t add_df(const void *p) {
    const struct args *a = p;
    L2VFIB_EbgDfEntry df = {a->i, 2, 3, 4};
    return L2VFIB_AddEBGDf(fd, 8, &df);
}

int main(int argc, char **argv) {
    const uint32_t n = argc > 1 ? (uint32_t)strtoul(argv[1], NULL, 10) : 100000;
    fd = L2VFIB_Open(NULL);
    if (fd < 0) {
        fprintf(stderr, "bulk_load: L2VFIB_Open failed: no forwarding service\n");
        return 1;
    }
    uint8_t pw[256], minm[256];
    L2VFIB_LpwSubEntry sub = {.word0 = 100, .word1 = 200, .word2 = 300, .half0 = 1};
    L2VFIB_LpwEntry lpw = {.attr64 = {1, 2}, .attr32 = 1500, .attr16 = {10, 20, 30}, .sub = {&sub, NULL}};
    L2VFIB_MinMMember member = {.word0 = 1, .data = {1, 2, 3, 4, 5, 6, 7, 8}};
    L2VFIB_MinMEntry entry = {.word0 = 1, .memberCount = 1, .members = &member};
    const uint16_t pwLength = (uint16_t)L2VFIB_EncLpwEntry(&lpw, sizeof pw, pw);
    const uint16_t minmLength = (uint16_t)L2VFIB_EncMinMEntry(&entry, sizeof minm, minm);
    if (pwLength == 0 || minmLength == 0) {
        fprintf(stderr, "bulk_load: an attribute block did not fit\n");
        return 1;
    }
    const struct {
        const char *name;
        uint32_t (*call)(const void *);
        const uint8_t *block;
        uint16_t length;
    } families[] = {{"pw", add_pw, pw, pwLength},     {"minm", add_minm, minm, minmLength},
                    {"ac", add_ac, NULL, 0},          {"tunnel", add_tunnel, NULL, 0},
                    {"ebg", add_ebg, NULL, 0},        {"ebg-df", add_df, NULL, 0}};
    int ok = 1;
    for (size_t f = 0; ok && f < sizeof families / sizeof families[0]; f++) {
        const unsigned long before = retries;
        const double start = seconds();
        for (uint32_t i = 1; ok && i <= n; i++) {
            struct args a = {i, families[f].block, families[f].length};
            ok = queue(families[f].call(&a), families[f].name, families[f].call, &a);
        }
        ok = ok && L2VFIB_FlushEntry(fd) == L2VFIB_OK;
        const double took = seconds() - start;
        printf("%-8s %u entries in %.3f s: %.0f a second, %lu waits for the service\n", families[f].name, n,
               took, took > 0 ? n / took : 0.0, retries - before);
    }
    L2VFIB_Close(fd);
    if (!ok) fprintf(stderr, "bulk_load: stopped at the first failure\n");
    return ok ? 0 : 1;
}
