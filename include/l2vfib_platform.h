/*
 * l2vfib_platform.h - the device services that libl2vfib calls.
 *
 * This is the only door from the library to the device. The library
 * defines none of these names: the device's platform libraries supply them
 * on the device, the host platform (libl2vfib_host) supplies them on a
 * development machine, and the unit tests supply a fake of their own.
 *
 * TLV item, as STLV_Set writes it and STLV_Get reads it:
 *
 *    0       2       4
 *   +-------+-------+------------------------+
 *   | type  | length| value (length bytes)   |
 *   | be16  | be16  |                        |
 *   +-------+-------+------------------------+
 */
#ifndef L2VFIB_PLATFORM_H
#define L2VFIB_PLATFORM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one item at buffer: returns 4 + length, or 0 with nothing written
 * when room < 4 + length or type or length does not fit 16 bits. With a
 * null value only the 4-byte item header is written; the length bytes
 * behind it are left as they are and still counted. */
uint32_t STLV_Set(void *buffer, uint32_t room, uint32_t type, uint32_t length, const void *value);

/* Reads the first item of the length bytes at buffer. Returns nonzero and
 * sets *type, *itemLength and *value (pointing into buffer) when the whole
 * item lies within length; otherwise returns 0 and sets *value to null. */
uint32_t STLV_Get(const void *buffer, uint32_t length, uint32_t *type, uint32_t *itemLength,
                  const void **value);

/* Synchronous control call to a node: 0 on success; stores the answer's
 * length in *answerLength (answerRoom 0 and null answer pointers when no
 * answer is wanted). */
uint32_t CIOCTL(uint32_t target, uint32_t code, uint32_t inputLength, const void *input,
                uint32_t answerRoom, void *answer, uint32_t *answerLength);

/* One-way control call to a node: 0 when it was handed over. */
uint32_t CIOCTL_Async(uint32_t target, uint32_t code, uint32_t inputLength, const void *input);

/* The device's node numbers, in an array allocated with malloc that the
 * caller releases with free; *count receives their number. Null on failure. */
uint16_t *DEV_GetAllNodes(uint32_t *count);

/* 1 when the node is up. */
uint32_t IF_IsNodeUp(uint32_t node);

/* The local node's address; its low 16 bits are the local node number. */
uint32_t LIP_GetLocalLip(uint32_t which);

/* Stores the tunnel mode of a tunnel interface in *mode. */
uint32_t TUNNEL_GetMode(uint32_t ifIndex, uint32_t *mode);

/* Sockets of the device's address family (37), datagram type. Each
 * returns -1 and sets errno on failure. Option numbers are the device's:
 * level 1, 0x1005 send time-out, 0x1006 receive time-out, each an 8-byte
 * value of two host-order u32, seconds then microseconds. */
int SKT_Socket(int family, int type, int protocol);
int SKT_Connect(int fd, const void *address, uint32_t addressLength);
ssize_t SKT_Send(int fd, const void *data, size_t length, int flags);
ssize_t SKT_Recv(int fd, void *data, size_t length, int flags);
int SKT_SetOpt(int fd, int level, int name, const void *value, uint32_t valueLength);
int SKT_Close(int fd);

#ifdef __cplusplus
}
#endif

#endif /* L2VFIB_PLATFORM_H */
