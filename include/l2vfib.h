/*
 * l2vfib.h - client library of the layer-2 virtual forwarding table service.
 *
 * A daemon opens the library (L2VFIB_Open), queues configuration messages in
 * the process's 1400-byte batch buffer (L2VFIB_Send_Cfg and the direct entry
 * functions), flushes them (L2VFIB_FlushEntry), hands notices back from its
 * poll loop (L2VFIB_HandleMsg) and closes (L2VFIB_Close). The event channel
 * (L2VFIB_InitEvent ... L2VFIB_FiniEvent) is independent of all that.
 *
 * Every record passed in is the caller's, in host byte order, and is only
 * read unless a function says otherwise. No function allocates memory except
 * L2VFIB_Open, which allocates the batch buffer. Calls that append, flush,
 * open or close must come from one thread at a time.
 */
#ifndef L2VFIB_H
#define L2VFIB_H

#include <stddef.h> /* NULL, for the pointer arguments that may be null */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* No function throws (the library is built without exceptions): C++
 * callers need no unwinding around a call, and can end in one. */
#if defined(L2VFIB_BUILDING) && defined(__GNUC__)
#define L2VFIB_API __attribute__((visibility("default"), nothrow))
#elif defined(__GNUC__)
#define L2VFIB_API __attribute__((nothrow))
#else
#define L2VFIB_API
#endif

/* ---------------------------------------------------------------------- */
/* Result codes                                                           */
/* ---------------------------------------------------------------------- */

#define L2VFIB_OK 0x00000000u
/* Any failure to encode, send, receive or parse, and every refusal that has
 * no code of its own. */
#define L2VFIB_ERR_FAIL 0x40010001u
/* The library is not open (no batch buffer); also a null entry record in the
 * overlay tunnel functions. */
#define L2VFIB_ERR_NOT_OPEN 0x4001000au
/* A malformed notice on the service socket. */
#define L2VFIB_ERR_BAD_MSG 0x60010004u
/* Nothing to read on the event socket. */
#define L2VFIB_ERR_NO_DATA 0x2001000eu

/* What a result code means, in words, for a daemon's log: "ok" for
 * L2VFIB_OK, a sentence for each of the four codes above, and "a result of
 * the service's own" for anything else (answered commands and control calls
 * pass the service's result through). Inline, so it adds no export. */
static inline const char *l2vfib_result_name(uint32_t code) {
    switch (code) {
    case L2VFIB_OK: return "ok";
    case L2VFIB_ERR_FAIL: return "the call failed: refused, or an encode, send, receive or parse failed";
    case L2VFIB_ERR_NOT_OPEN: return "the library is not open";
    case L2VFIB_ERR_BAD_MSG: return "a malformed notice arrived from the service";
    case L2VFIB_ERR_NO_DATA: return "nothing was waiting on the event socket";
    default: return "a result of the service's own";
    }
}

/* Size of the batch buffer's area and the longest message. */
#define L2VFIB_BATCH_SIZE 1400u

/* The number of entries the caller's array for L2VFIB_GetAcData must hold:
 * the most 16-byte entries a 4096-byte answer can carry. */
#define L2VFIB_AC_DATA_MAX 254u

/* A command code of the catalogue, 0 to 91. */
typedef uint32_t L2VFIB_CmdId;

/* ---------------------------------------------------------------------- */
/* Callbacks                                                              */
/* ---------------------------------------------------------------------- */

/* Notice callback, given to L2VFIB_Open and called by L2VFIB_HandleMsg with
 * kind 1 and a pointer to the notice's value in host byte order. The pointer
 * is valid only during the call; the result is ignored. */
typedef uint32_t L2VFIB_MsgCallback(uint32_t kind, uint32_t *value);

/* Event callback, installed by L2VFIB_RegEvent and called by
 * L2VFIB_HandleEvtMsg once per known event item with the message's tag and
 * the decoded record (an L2VFIB_EvtRecord2, 3 or 6). The record is valid
 * only during the call; the result becomes L2VFIB_HandleEvtMsg's result. */
typedef uint32_t L2VFIB_EvtCallback(uint32_t tag, const void *record);

/* ---------------------------------------------------------------------- */
/* Shared records                                                         */
/* ---------------------------------------------------------------------- */

/* The key of a pseudowire, MAC-in-MAC entry, attachment circuit or withdraw
 * target. Only id and subId (six bytes) are read. */
typedef struct L2VFIB_EntryKey {
    uint32_t id;
    uint16_t subId;
} L2VFIB_EntryKey;

/* An address block: family 2 is IPv4 (address in the first four bytes of
 * addr); addr is in network order. */
typedef struct L2VFIB_IpAddr {
    uint16_t family;
    uint8_t reserved[2];
    uint8_t addr[16];
} L2VFIB_IpAddr;

/* Two words, sent as two big-endian words; an overlay tunnel's key. */
typedef struct L2VFIB_WordPair {
    uint32_t word0;
    uint32_t word1;
} L2VFIB_WordPair;

/* ---------------------------------------------------------------------- */
/* Catalogue records (arguments of L2VFIB_Send_Cfg and L2VFIB_AllocECID)  */
/* ---------------------------------------------------------------------- */

typedef struct L2VFIB_HalfPair {
    uint16_t half0;
    uint16_t half1;
} L2VFIB_HalfPair;

typedef struct L2VFIB_Variant1Sub {
    uint32_t word0;
    uint16_t half0;
    uint16_t half1;
    uint16_t half2;
    uint16_t half3;
    uint16_t half4;
    uint16_t half5;
} L2VFIB_Variant1Sub;

typedef struct L2VFIB_Variant1Ext {
    uint32_t word0;
    uint16_t half0;
    L2VFIB_Variant1Sub sub[2];
} L2VFIB_Variant1Ext;

/* Variant record of kind 1. */
typedef struct L2VFIB_Variant1 {
    uint32_t word0;
    uint16_t half0;
    uint16_t half1;
    uint16_t count0;                /* pairs in list0 */
    const L2VFIB_HalfPair *list0;   /* or null */
    uint16_t half2;
    uint16_t half3;
    uint16_t count1;                /* pairs in list1 */
    const L2VFIB_HalfPair *list1;   /* or null */
    const L2VFIB_Variant1Ext *ext;  /* or null */
} L2VFIB_Variant1;

/* Variant record of kinds 2 and 3. */
typedef struct L2VFIB_Variant2 {
    uint32_t word0;
    uint32_t word1;
    uint16_t half0;
    uint8_t byte0;
} L2VFIB_Variant2;

/* Variant record of kind 4. */
typedef struct L2VFIB_Variant4 {
    uint16_t half0;
    uint32_t word0;
} L2VFIB_Variant4;

/* Variant entry of commands 7, 8, 9, 12, 69 and 70. */
typedef struct L2VFIB_VariantEntry {
    uint32_t word0;
    const void *variant; /* the record of kind: Variant1, Variant2 or Variant4 */
    uint16_t half0;
    uint8_t byte0;
    uint8_t kind;
    uint8_t byte1;
} L2VFIB_VariantEntry;

/* Instance configuration of commands 4, 5, 6 and 11. */
typedef struct L2VFIB_InstanceCfg {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint16_t half0;
    uint8_t byte0;
    uint8_t byte1;
    uint32_t word3;
    char name[32];
    uint32_t word4;
    uint32_t word5;
    uint16_t half1;
    uint32_t words[8];
    uint8_t reserved[8]; /* not read; sent as zeros */
    uint32_t word6;
    uint32_t word7;
    uint32_t word8;
} L2VFIB_InstanceCfg;

/* Host entry of commands 24 and 25. */
typedef struct L2VFIB_HostEntry {
    L2VFIB_IpAddr ip;
    uint8_t mac[6];
    uint16_t half0;
    uint16_t half1;
} L2VFIB_HostEntry;

typedef struct L2VFIB_AddrParam {
    L2VFIB_IpAddr ip;
    uint32_t word0;
    uint16_t half0;
} L2VFIB_AddrParam;

typedef struct L2VFIB_AddrValue {
    L2VFIB_IpAddr ip;
    uint32_t word0;
} L2VFIB_AddrValue;

typedef struct L2VFIB_AddrSet {
    L2VFIB_IpAddr ip;
    L2VFIB_AddrValue peers[8];
} L2VFIB_AddrSet;

typedef struct L2VFIB_DataEntry {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint8_t byte0;
    uint8_t byte1;
    uint8_t pair[2]; /* sent as it lies in memory */
    uint8_t data[32];
} L2VFIB_DataEntry;

typedef struct L2VFIB_DataBlock {
    uint32_t word0;
    uint32_t word1;
    uint8_t data[32];
} L2VFIB_DataBlock;

#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#endif
/* A pair of words (mode 1) or a list of count words (any other mode). */
typedef struct L2VFIB_RangeOrList {
    uint8_t mode;
    uint16_t count;
    uint8_t reserved[4]; /* not read */
    uint32_t word0;
    uint32_t word1;
    uint32_t words[]; /* count entries */
} L2VFIB_RangeOrList;
#if defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

typedef struct L2VFIB_PairEntry {
    uint32_t word0;
    uint16_t half0;
    uint16_t half1;
} L2VFIB_PairEntry;

typedef struct L2VFIB_PairEntryExt {
    uint32_t word0;
    uint16_t half0;
    uint16_t half1;
    uint32_t word1;
} L2VFIB_PairEntryExt;

typedef struct L2VFIB_WordTriple {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
} L2VFIB_WordTriple;

typedef struct L2VFIB_WordsHalf {
    uint32_t word0;
    uint32_t word1;
    uint16_t half0;
} L2VFIB_WordsHalf;

/* ---------------------------------------------------------------------- */
/* Forwarding entry records                                               */
/* ---------------------------------------------------------------------- */

typedef struct L2VFIB_LpwSubEntry {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint16_t half0;
    uint8_t byte0;
    uint8_t byte1;
    uint16_t half1;
    uint16_t half2;
    uint32_t word3;
} L2VFIB_LpwSubEntry;

/* A pseudowire's attributes, for L2VFIB_EncLpwEntry. */
typedef struct L2VFIB_LpwEntry {
    uint64_t attr64[2];
    uint32_t attr32;
    uint16_t attr16[3];
    uint8_t attr8;
    const L2VFIB_LpwSubEntry *sub[2]; /* either or both may be null */
} L2VFIB_LpwEntry;

typedef struct L2VFIB_MinMMember {
    uint32_t word0;
    uint8_t data[8];
} L2VFIB_MinMMember;

/* A MAC-in-MAC entry, for L2VFIB_EncMinMEntry. */
typedef struct L2VFIB_MinMEntry {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint32_t memberCount; /* elements in members */
    uint32_t word4;
    uint8_t macAddr[3][6];
    uint32_t opaque[6]; /* sent as it lies in memory */
    const L2VFIB_MinMMember *members;
    const L2VFIB_MinMMember *extra; /* or null */
} L2VFIB_MinMEntry;

/* An attachment circuit's attributes. */
typedef struct L2VFIB_AcInfo {
    uint16_t half0;
    uint32_t word0;
    uint8_t byte0;
    uint32_t word1;
    uint8_t reserved0[8]; /* not read; sent as zeros */
    uint64_t attr64;
    uint32_t word2;
    uint8_t reserved1[4]; /* not read; sent as zeros */
    uint16_t half1;
    uint16_t half2;
} L2VFIB_AcInfo;

typedef struct L2VFIB_AcOption {
    uint16_t half0;
    uint16_t half1;
    uint16_t half2;
    uint16_t half3;
} L2VFIB_AcOption;

/* One attachment-circuit data entry, host order after L2VFIB_GetAcData. */
typedef struct L2VFIB_AcData {
    uint32_t word0;
    uint16_t half0;
    uint8_t byte0;
    uint8_t byte1;
    uint16_t half1;
    uint16_t half2;
    uint32_t word1;
} L2VFIB_AcData;

/* The caller's record for L2VFIB_GetAcData: entries must have room for
 * L2VFIB_AC_DATA_MAX elements; count is written by the call. */
typedef struct L2VFIB_AcDataList {
    uint32_t count;
    L2VFIB_AcData *entries;
} L2VFIB_AcDataList;

/* A selection record for L2VFIB_SelectType_Set. */
typedef struct L2VFIB_TypeSelect {
    uint32_t value;
    uint32_t typeMask;
} L2VFIB_TypeSelect;

/* ---------------------------------------------------------------------- */
/* Overlay tunnel and EBG records                                         */
/* ---------------------------------------------------------------------- */

typedef struct L2VFIB_OverlayTunnelEntry {
    L2VFIB_WordPair tunnelKey;
    uint32_t tunnelAttr[4];
} L2VFIB_OverlayTunnelEntry;

typedef struct L2VFIB_EbgKey {
    uint32_t ebgId;
} L2VFIB_EbgKey;

typedef struct L2VFIB_MplsEbgKey {
    uint32_t word0;
    uint32_t word1;
} L2VFIB_MplsEbgKey;

typedef struct L2VFIB_MplsEbgMember {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
} L2VFIB_MplsEbgMember;

typedef struct L2VFIB_EbgDfEntry {
    uint32_t word0;
    uint32_t word1;
    uint32_t word2;
    uint32_t word3;
} L2VFIB_EbgDfEntry;

/* ---------------------------------------------------------------------- */
/* Event records, as the event callback receives them (host order)        */
/* ---------------------------------------------------------------------- */

/* From event item type 2. word5, word6, word7 and word8 are converted only
 * when kind is 93; otherwise they hold the bytes as received. */
typedef struct L2VFIB_EvtRecord2 {
    uint32_t word0;
    uint32_t word1;
    uint8_t kind;
    uint8_t raw0;
    uint16_t half0;
    uint32_t word2;
    uint32_t word3;
    uint32_t word4;
    uint16_t half1;
    uint8_t raw1[2];
    uint32_t word5;
    uint32_t word6;
    uint8_t raw2[4];
    uint32_t word7;
    uint32_t word8;
} L2VFIB_EvtRecord2;

/* From event item type 3. */
typedef struct L2VFIB_EvtRecord3 {
    uint32_t word0;
    uint32_t word1;
    uint16_t half0;
    uint8_t raw0[2];
} L2VFIB_EvtRecord3;

/* From event item type 6. */
typedef struct L2VFIB_EvtRecord6 {
    uint32_t word0;
    uint32_t word1;
    uint8_t raw0[32];
} L2VFIB_EvtRecord6;

/* ---------------------------------------------------------------------- */
/* Opening, batching and closing                                          */
/* ---------------------------------------------------------------------- */

/* Connects the service socket, creates the batch buffer and reads the device
 * capabilities. msgCallback may be null.
 * Returns the service socket's descriptor, or -1: already open, no socket,
 * connect failed, or no memory for the batch buffer. */
L2VFIB_API int32_t L2VFIB_Open(L2VFIB_MsgCallback *msgCallback);

/* Frees the batch buffer, discarding anything queued, and closes socket.
 * Returns what close returned: 0, or -1. */
L2VFIB_API int32_t L2VFIB_Close(int32_t socket);

/* Builds command cmd from arg1 and arg2 and queues it (batch 1, or a command
 * that is always batched), sends it alone, or sends it on a fresh socket and
 * returns the service's answer.
 * Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
 * L2VFIB_ERR_FAIL when the command has no encoder, its encoder refused, a
 * send or receive failed or the answer was not a result; on the answered
 * path, the service's own result number. */
L2VFIB_API uint32_t L2VFIB_Send_Cfg(int32_t socket, L2VFIB_CmdId cmd, uint32_t batch,
                                    const void *arg1, const void *arg2);

/* Sends the queued messages as one datagram with a blocking send.
 * Returns L2VFIB_OK (also when nothing was queued); L2VFIB_ERR_NOT_OPEN when
 * the library is not open (nothing sent); L2VFIB_ERR_FAIL when the datagram
 * was not handed over whole, in which case the messages stay queued. */
L2VFIB_API uint32_t L2VFIB_FlushEntry(int32_t socket);

/* ---------------------------------------------------------------------- */
/* Immediate requests and notices                                         */
/* ---------------------------------------------------------------------- */

/* Sends command cmd on a fresh socket and returns the identifier the
 * service allocates, or -1: not open, encoder refused, no socket, send or
 * receive failed, or the answer carried no identifier. */
L2VFIB_API int32_t L2VFIB_AllocECID(L2VFIB_CmdId cmd, const void *arg1, const void *arg2);

/* Reads one notice from the service socket (waiting for it) and calls the
 * notice callback with its value.
 * Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open
 * (nothing received); L2VFIB_ERR_FAIL when the receive failed, 8 bytes or
 * fewer arrived or no item could be read; L2VFIB_ERR_BAD_MSG for 9 to 11
 * bytes, a length that overruns the datagram or a first item that is not a
 * notice. */
L2VFIB_API uint32_t L2VFIB_HandleMsg(int32_t socket);

/* ---------------------------------------------------------------------- */
/* Control calls (no open library needed)                                 */
/* ---------------------------------------------------------------------- */

/* Start control call to node target with value. Returns the control-call
 * service's result unchanged (0 is success). */
L2VFIB_API uint32_t L2VFIB_Start(uint32_t target, uint32_t value);

/* Stop control call to node target, one way. Returns the control-call
 * service's result unchanged. */
L2VFIB_API uint32_t L2VFIB_Stop(uint32_t target);

/* VLAN range check of the caller's length bytes at data on node target.
 * Returns L2VFIB_ERR_FAIL when data is null (no call is made), else the
 * control-call service's result unchanged. */
L2VFIB_API uint32_t L2VFIB_CheckVlanRange(uint32_t target, uint32_t length, const void *data);

/* ---------------------------------------------------------------------- */
/* Pseudowires                                                            */
/* ---------------------------------------------------------------------- */

/* Queue a pseudowire add carrying blockLength bytes of block behind the key.
 * Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN, or L2VFIB_ERR_FAIL (a null key, a
 * null block of nonzero length, a block above 1380 bytes that cannot fit an
 * empty batch, or a flush for room that failed; nothing is queued). */
L2VFIB_API uint32_t L2VFIB_AddPwEntry(int32_t socket, uint32_t byte7, const L2VFIB_EntryKey *key,
                                      const void *block, uint16_t blockLength);
/* Queue a pseudowire delete. Results as L2VFIB_AddPwEntry. */
L2VFIB_API uint32_t L2VFIB_DelPwEntry(int32_t socket, uint32_t byte7, const L2VFIB_EntryKey *key);
/* Encode a pseudowire's attribute block into out. Returns the bytes written,
 * or 0 (nothing written): a null entry or out, a room below that of the
 * largest block (4 x (fillWords13 + 21)), or a fillWords13 above 57. */
L2VFIB_API uint32_t L2VFIB_EncLpwEntry(const L2VFIB_LpwEntry *entry, uint32_t room, void *out);

/* ---------------------------------------------------------------------- */
/* MAC-in-MAC                                                             */
/* ---------------------------------------------------------------------- */

/* Queue a MAC-in-MAC message with the caller's opcode and a block.
 * Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN or L2VFIB_ERR_FAIL (as
 * L2VFIB_AddPwEntry). */
L2VFIB_API uint32_t L2VFIB_AddMinMEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                        const L2VFIB_EntryKey *key, const void *block,
                                        uint16_t blockLength);
/* Queue a MAC-in-MAC message without block. Results as above. */
L2VFIB_API uint32_t L2VFIB_DelMinMEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                        const L2VFIB_EntryKey *key);
/* Encode a MAC-in-MAC attribute block into out. Returns the bytes written,
 * or 0 (nothing written): a null entry, out or members, a memberCount of 0
 * or above 21, or a room below the block's length. */
L2VFIB_API uint32_t L2VFIB_EncMinMEntry(const L2VFIB_MinMEntry *entry, uint32_t room, void *out);

/* ---------------------------------------------------------------------- */
/* Attachment circuits                                                    */
/* ---------------------------------------------------------------------- */

/* Queue an attachment-circuit add (a delete when info is null).
 * Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN or L2VFIB_ERR_FAIL (a null key, a
 * fillWords22 above 52 on an add, or a flush for room that failed). */
L2VFIB_API uint32_t L2VFIB_AddAcEntry(int32_t socket, const L2VFIB_EntryKey *key,
                                      const L2VFIB_AcInfo *info, const L2VFIB_AcOption *option);
/* Queue an attachment-circuit delete. Results as above. */
L2VFIB_API uint32_t L2VFIB_DelAcEntry(int32_t socket, const L2VFIB_EntryKey *key);
/* Send the AC flag message at once. Returns L2VFIB_OK or L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_SetAcFlagClear(int32_t socket, int32_t flag);
/* Query the attachment-circuit data table into list (entries must hold
 * L2VFIB_AC_DATA_MAX elements) and wait for the answer on socket.
 * Returns L2VFIB_OK (count set to the number of entries copied; list left
 * alone when the answer holds none), or L2VFIB_ERR_FAIL with list left
 * alone: a null list, a failed send or receive, a malformed answer, more
 * than L2VFIB_AC_DATA_MAX entries, or entries null when some came. */
L2VFIB_API uint32_t L2VFIB_GetAcData(int32_t socket, L2VFIB_AcDataList *list);

/* ---------------------------------------------------------------------- */
/* MAC addresses                                                          */
/* ---------------------------------------------------------------------- */

/* Queue a MAC withdraw. Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN or
 * L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_WithdrawMacAddr(int32_t socket, const L2VFIB_EntryKey *key);
/* Send a MAC reset with *value to every node that is up. Returns L2VFIB_OK
 * whatever the nodes answer, or L2VFIB_ERR_FAIL for a null value. */
L2VFIB_API uint32_t L2VFIB_ResetMacAddr(const uint32_t *value);

/* ---------------------------------------------------------------------- */
/* Graceful restart and type selection                                    */
/* ---------------------------------------------------------------------- */

/* Send a graceful-restart event at once. Returns L2VFIB_OK or
 * L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_SendGrEvent(int32_t socket, uint32_t flag);
/* Mark type (0 to 7, or all eight for 8 and above) in select and store
 * value beside it. Does nothing when select is null. */
L2VFIB_API void L2VFIB_SelectType_Set(uint32_t value, uint32_t type, L2VFIB_TypeSelect *select);

/* ---------------------------------------------------------------------- */
/* Overlay tunnels                                                        */
/* ---------------------------------------------------------------------- */

/* Queue an overlay tunnel add. Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN (also
 * for a null entry) or L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_AddOverlayTunnel(int32_t socket, uint32_t byte7,
                                            const L2VFIB_OverlayTunnelEntry *entry);
/* Queue an overlay tunnel delete. Results as above. */
L2VFIB_API uint32_t L2VFIB_DelOverlayTunnel(int32_t socket, uint32_t byte7,
                                            const L2VFIB_OverlayTunnelEntry *entry);
/* Queue a delete of oldEntry then an add of newEntry; byte7 must be 5.
 * Results as above. */
L2VFIB_API uint32_t L2VFIB_SwitchOverlayTunnel(int32_t socket, uint32_t byte7,
                                               const L2VFIB_OverlayTunnelEntry *oldEntry,
                                               const L2VFIB_OverlayTunnelEntry *newEntry);
/* Send a tunnel interface deletion at once. Returns L2VFIB_OK or
 * L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_SendTunnelIFDel(int32_t socket, uint32_t ifIndex);

/* ---------------------------------------------------------------------- */
/* EBG member lists and designated forwarders                             */
/* ---------------------------------------------------------------------- */

/* Queue EBG member lists, split over as many messages as the batch needs.
 * Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN or L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_AddEBGMember(int32_t socket, uint32_t byte7,
                                        const L2VFIB_EbgKey *groupKey, const uint32_t *members,
                                        uint16_t count);
L2VFIB_API uint32_t L2VFIB_DelEBGMember(int32_t socket, uint32_t byte7,
                                        const L2VFIB_EbgKey *groupKey, const uint32_t *members,
                                        uint16_t count);
L2VFIB_API uint32_t l2vfib_SendEbgMemberEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                              const L2VFIB_EbgKey *groupKey,
                                              const uint32_t *members, uint16_t count);
L2VFIB_API uint32_t L2VFIB_AddMplsEBGMember(int32_t socket, uint32_t byte7,
                                            const L2VFIB_MplsEbgKey *groupKey,
                                            const L2VFIB_MplsEbgMember *members, uint16_t count);
L2VFIB_API uint32_t L2VFIB_DelMplsEBGMember(int32_t socket, uint32_t byte7,
                                            const L2VFIB_MplsEbgKey *groupKey,
                                            const L2VFIB_MplsEbgMember *members, uint32_t count);
L2VFIB_API uint32_t l2vfib_SendMplsEbgMemberEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                                  const L2VFIB_MplsEbgKey *groupKey,
                                                  const L2VFIB_MplsEbgMember *members,
                                                  uint32_t count);

/* Queue one EBG designated forwarder entry. Returns L2VFIB_OK,
 * L2VFIB_ERR_NOT_OPEN or L2VFIB_ERR_FAIL. */
L2VFIB_API uint32_t L2VFIB_AddEBGDf(int32_t socket, uint32_t byte7, const L2VFIB_EbgDfEntry *entry);
L2VFIB_API uint32_t L2VFIB_DelEBGDf(int32_t socket, uint32_t byte7, const L2VFIB_EbgDfEntry *entry);
L2VFIB_API uint32_t l2vfib_SendEbgDfEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                          const L2VFIB_EbgDfEntry *entry);

/* ---------------------------------------------------------------------- */
/* Events                                                                 */
/* ---------------------------------------------------------------------- */

/* Open an event channel to the local node's event service. Returns the
 * event socket's descriptor, or -1. */
L2VFIB_API int32_t L2VFIB_InitEvent(uint32_t channelWord);
/* Close the event channel. Returns what close returned. */
L2VFIB_API int32_t L2VFIB_FiniEvent(int32_t socket);
/* Install callback (null removes it) and register for events; selector
 * points to three words or is null. Returns L2VFIB_OK. */
L2VFIB_API uint32_t L2VFIB_RegEvent(int32_t socket, uint16_t eventMask, const uint32_t *selector,
                                    uint32_t eventParam, L2VFIB_EvtCallback *callback,
                                    uint16_t extra16);
/* Deregister. Returns L2VFIB_OK. */
L2VFIB_API uint32_t L2VFIB_DeregEvent(int32_t socket, uint16_t eventMask, uint32_t selector0,
                                      uint32_t eventParam);
/* Read one event datagram without waiting and dispatch its items.
 * Returns L2VFIB_ERR_NO_DATA (nothing to read), L2VFIB_ERR_FAIL (payload
 * length below 8, or no known item), L2VFIB_ERR_BAD_MSG (payload length
 * beyond the bytes received), L2VFIB_OK (no callback installed), or the
 * last callback's result. */
L2VFIB_API uint32_t L2VFIB_HandleEvtMsg(int32_t socket);

#ifdef __cplusplus
}
#endif

#endif /* L2VFIB_H */
