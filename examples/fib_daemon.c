/* fib_daemon: an example control-plane daemon. It programs one of each
 * kind of forwarding entry the library knows, asks the service what it has,
 * registers for events, and then serves its poll loop until it has handled
 * one notice and one event (or its wait runs out).
 *
 * When the service restarts under it (its socket closes, or a flush that
 * waits fails), it recovers as a daemon must: it closes the library, opens
 * it again with a back-off until the service is back, programs its whole
 * state again, and opens its event channel and registers again.
 *
 *   fib_daemon [SECONDS]    wait up to SECONDS (default 10) for a notice
 *                           and an event; 0 skips the wait
 *
 * Run it against the emulated device (make demo does) or on a device. It
 * exits 1 as soon as a call fails, naming the call and its result. */
#include <l2vfib.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static int failures;
static int quiet;  /* while programming again after a restart */

/* Every call goes through here: print it, count a failure. */
static int check(const char *what, uint32_t rc) {
    if (rc != L2VFIB_OK) {
        fprintf(stderr, "fib_daemon: %s failed: 0x%08x\n", what, rc);
        failures++;
        return 0;
    }
    if (!quiet) printf("  %-44s ok\n", what);
    return 1;
}

#define CHECK(call) \
    do { \
        if (!check(#call, (call))) goto out; \
    } while (0)

static int notices, events;

static uint32_t on_notice(uint32_t kind, uint32_t *value) {
    printf("  notice: kind %u value 0x%08x\n", kind, *value);
    notices++;
    return 0;
}

static uint32_t on_event(uint32_t tag, const void *record) {
    /* The record's type is the item's; a daemon registers for what it
     * knows. Records 2, 3 and 6 all begin with two words. */
    const L2VFIB_EvtRecord3 *r = record;
    printf("  event: tag %u word0 %u word1 %u\n", tag, r->word0, r->word1);
    events++;
    return L2VFIB_OK;
}

static long now_ms(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000L + t.tv_nsec / 1000000L;
}

/* Programs the daemon's whole state through fd: 1 when every call
 * succeeded. Run at start, and again after the service restarted. */
static int program(int32_t fd) {
    /* Pseudowires: the attribute block is encoded first, then queued. */
    {
        L2VFIB_LpwSubEntry sub = {.word0 = 100, .word1 = 200, .word2 = 300, .half0 = 1,
                                  .byte0 = 2, .byte1 = 3, .half1 = 4, .half2 = 5, .word3 = 6};
        L2VFIB_LpwEntry pw = {.attr64 = {0x0102030405060708ull, 42}, .attr32 = 1500,
                              .attr16 = {10, 20, 30}, .attr8 = 1, .sub = {&sub, NULL}};
        uint8_t block[512];
        uint32_t n = L2VFIB_EncLpwEntry(&pw, sizeof block, block);
        if (n == 0) {
            check("L2VFIB_EncLpwEntry", L2VFIB_ERR_FAIL);
            goto out;
        }
        for (uint32_t id = 1; id <= 3; id++) {
            L2VFIB_EntryKey key = {.id = id, .subId = 1};
            CHECK(L2VFIB_AddPwEntry(fd, 8, &key, block, (uint16_t)n));
        }
        L2VFIB_EntryKey gone = {.id = 3, .subId = 1};
        CHECK(L2VFIB_DelPwEntry(fd, 8, &gone));
    }

    /* Attachment circuits, one with its option. */
    {
        L2VFIB_AcInfo info = {.half0 = 100, .word0 = 7, .byte0 = 1, .word1 = 9,
                              .attr64 = 0x1122334455667788ull, .word2 = 3, .half1 = 10, .half2 = 20};
        L2VFIB_AcOption option = {.half0 = 1, .half1 = 2, .half2 = 3, .half3 = 4};
        L2VFIB_EntryKey ac1 = {.id = 10, .subId = 1}, ac2 = {.id = 11, .subId = 2};
        CHECK(L2VFIB_AddAcEntry(fd, &ac1, &info, &option));
        info.half1 = 11;
        CHECK(L2VFIB_AddAcEntry(fd, &ac2, &info, NULL));
    }

    /* A MAC-in-MAC entry with two members. */
    {
        L2VFIB_MinMMember members[2] = {{.word0 = 1, .data = {1, 2, 3, 4, 5, 6, 7, 8}},
                                        {.word0 = 2, .data = {8, 7, 6, 5, 4, 3, 2, 1}}};
        L2VFIB_MinMEntry entry = {.word0 = 1, .word1 = 2, .word2 = 3, .memberCount = 2, .word4 = 5,
                                  .macAddr = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55},
                                              {0x00, 0x11, 0x22, 0x33, 0x44, 0x66},
                                              {0x00, 0x11, 0x22, 0x33, 0x44, 0x77}},
                                  .members = members};
        uint8_t block[512];
        uint32_t n = L2VFIB_EncMinMEntry(&entry, sizeof block, block);
        if (n == 0) {
            check("L2VFIB_EncMinMEntry", L2VFIB_ERR_FAIL);
            goto out;
        }
        L2VFIB_EntryKey key = {.id = 20, .subId = 1};
        CHECK(L2VFIB_AddMinMEntry(fd, 8, 5, &key, block, (uint16_t)n));
    }

    /* Overlay tunnels: one of each object type, then a switch. */
    {
        L2VFIB_OverlayTunnelEntry t1 = {.tunnelKey = {1, 2}, .tunnelAttr = {3, 4, 5, 6}};
        L2VFIB_OverlayTunnelEntry t2 = {.tunnelKey = {7, 8}, .tunnelAttr = {9, 10, 11, 12}};
        L2VFIB_OverlayTunnelEntry t3 = {.tunnelKey = {1, 3}, .tunnelAttr = {3, 4, 5, 7}};
        CHECK(L2VFIB_AddOverlayTunnel(fd, 5, &t1));
        CHECK(L2VFIB_AddOverlayTunnel(fd, 7, &t2));
        CHECK(L2VFIB_SwitchOverlayTunnel(fd, 5, &t1, &t3));
    }

    /* EBG and MPLS EBG member lists, and two designated forwarders. */
    {
        L2VFIB_EbgKey ebg = {.ebgId = 42};
        uint32_t members[3] = {1, 2, 3};
        L2VFIB_MplsEbgKey mpls = {.word0 = 10, .word1 = 20};
        L2VFIB_MplsEbgMember mplsMembers[2] = {{1, 2, 3}, {4, 5, 6}};
        L2VFIB_EbgDfEntry df1 = {1, 2, 3, 4}, df2 = {1, 2, 3, 5};
        CHECK(L2VFIB_AddEBGMember(fd, 8, &ebg, members, 3));
        CHECK(L2VFIB_DelEBGMember(fd, 8, &ebg, &members[2], 1));
        CHECK(L2VFIB_AddMplsEBGMember(fd, 8, &mpls, mplsMembers, 2));
        CHECK(L2VFIB_AddEBGDf(fd, 8, &df1));
        CHECK(L2VFIB_AddEBGDf(fd, 8, &df2));
    }

    /* Catalogue commands: batched (20, 57), alone (15) and answered (18). */
    {
        uint32_t instance = 100, limit = 4096, word = 5;
        CHECK(L2VFIB_Send_Cfg(fd, 20, 0, &instance, NULL));
        CHECK(L2VFIB_Send_Cfg(fd, 57, 0, NULL, &limit));
        CHECK(L2VFIB_Send_Cfg(fd, 15, 0, &word, NULL));
        CHECK(L2VFIB_Send_Cfg(fd, 18, 0, &instance, NULL));
    }

    /* MAC withdraw (batched) and reset (to every node that is up). */
    {
        L2VFIB_EntryKey key = {.id = 10, .subId = 1};
        uint32_t value = 258;
        CHECK(L2VFIB_WithdrawMacAddr(fd, &key));
        CHECK(L2VFIB_ResetMacAddr(&value));
    }

    CHECK(L2VFIB_FlushEntry(fd));

    /* Sent at once: graceful restart, the AC flag, a tunnel interface. */
    CHECK(L2VFIB_SendGrEvent(fd, 0));
    CHECK(L2VFIB_SetAcFlagClear(fd, 1));
    CHECK(L2VFIB_SendTunnelIFDel(fd, 261));

    /* Ask: an identifier, and the attachment-circuit data table. */
    {
        L2VFIB_WordTriple triple = {1, 2, 3};
        int32_t id = L2VFIB_AllocECID(54, NULL, &triple);
        if (id == -1) {
            check("L2VFIB_AllocECID", L2VFIB_ERR_FAIL);
            goto out;
        }
        if (!quiet) printf("  %-44s %d\n", "L2VFIB_AllocECID(54) identifier", id);

        static L2VFIB_AcData entries[L2VFIB_AC_DATA_MAX];
        L2VFIB_AcDataList list = {.count = 0, .entries = entries};
        CHECK(L2VFIB_GetAcData(fd, &list));
        for (uint32_t i = 0; i < list.count && !quiet; i++)
            printf("  ac data %u: word0 %u half0 %u byte0 %u half1 %u\n", i, entries[i].word0,
                   entries[i].half0, entries[i].byte0, entries[i].half1);
    }

    /* Control calls go to a node, not through the service socket. */
    {
        uint8_t range[4] = {0, 10, 0, 20};
        CHECK(L2VFIB_Start(0x0001, 5));
        CHECK(L2VFIB_CheckVlanRange(0x0001, sizeof range, range));
    }

    return 1;
out:
    return 0;
}

/* The event channel and its registration: the channel, or -1. */
static int32_t open_events(void) {
    int32_t evt = L2VFIB_InitEvent(5);
    if (evt < 0) {
        check("L2VFIB_InitEvent", L2VFIB_ERR_FAIL);
        return -1;
    }
    uint32_t selector[3] = {1, 0, 0};
    if (!check("L2VFIB_RegEvent(evt, 0x0010, selector, 0, on_event, 0)",
               L2VFIB_RegEvent(evt, 0x0010, selector, 0, on_event, 0))) {
        L2VFIB_FiniEvent(evt);
        return -1;
    }
    return evt;
}

/* The service restarted: everything it held is gone, and so is the queue.
 * Close, open again until the service is back (waiting 50 ms, doubled up
 * to a second, for at most until the deadline), and program it all again. */
static int recover(int32_t *fd, int32_t *evt, long deadline) {
    printf("fib_daemon: the service is gone; opening the library again\n");
    if (*evt >= 0) L2VFIB_FiniEvent(*evt);
    L2VFIB_Close(*fd);
    *evt = -1;
    long pause = 50;
    int tries = 1;
    while ((*fd = L2VFIB_Open(on_notice)) < 0) {
        if (now_ms() + pause > deadline) {
            fprintf(stderr, "fib_daemon: the service did not come back\n");
            return 0;
        }
        struct timespec wait = {0, pause * 1000000L};
        nanosleep(&wait, NULL);
        pause = pause * 2 > 1000 ? 1000 : pause * 2;
        tries++;
    }
    printf("fib_daemon: service back after %d tries; programming it again\n", tries);
    quiet = 1;
    const int ok = program(*fd) && (*evt = open_events()) >= 0;
    quiet = 0;
    if (!ok) return 0;
    printf("fib_daemon: recovered\n");
    fflush(stdout);
    return 1;
}

int main(int argc, char **argv) {
    const long wait_ms = (argc > 1 ? atol(argv[1]) : 10) * 1000L;
    int32_t evt = -1;
    int32_t fd = L2VFIB_Open(on_notice);
    if (fd < 0) {
        fprintf(stderr, "fib_daemon: L2VFIB_Open failed: no forwarding service\n");
        return 1;
    }
    printf("fib_daemon: library open, service socket %d\n", fd);
    if (!program(fd) || (evt = open_events()) < 0) goto out;
    printf("fib_daemon: configured; waiting for a notice and an event\n");
    fflush(stdout);

    /* The poll loop: the service socket for notices, the event socket for
     * events. A real daemon stays here; this one leaves once it has seen
     * one of each. A socket whose peer is gone (hung up, or a receive that
     * fails) means the service restarted. */
    for (long deadline = now_ms() + wait_ms; wait_ms > 0 && (notices == 0 || events == 0);) {
        long left = deadline - now_ms();
        if (left <= 0) {
            fprintf(stderr, "fib_daemon: no %s within the wait\n", notices == 0 ? "notice" : "event");
            failures++;
            break;
        }
        struct pollfd fds[2] = {{.fd = fd, .events = POLLIN}, {.fd = evt, .events = POLLIN}};
        if (poll(fds, 2, (int)left) <= 0) continue;
        int gone = (fds[0].revents | fds[1].revents) & (POLLHUP | POLLERR);
        if (!gone && (fds[0].revents & POLLIN)) gone = L2VFIB_HandleMsg(fd) == L2VFIB_ERR_FAIL;
        if (!gone && (fds[1].revents & POLLIN)) L2VFIB_HandleEvtMsg(evt);
        if (gone && !recover(&fd, &evt, deadline)) {
            failures++;
            break;
        }
        fflush(stdout);
    }

out:
    if (evt >= 0) L2VFIB_FiniEvent(evt);
    if (L2VFIB_Close(fd) != 0) failures++;
    printf("fib_daemon: %s\n", failures == 0 ? "done" : "FAILED");
    return failures == 0 ? 0 : 1;
}
