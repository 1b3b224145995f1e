// Cloud communication library: C interface, fixed. Every function returns 0 or an error; kZxcloudErr names
// ours.
//
// Threads: zxcloud_init and zxcloud_uninit may be called from any thread, one after another, any number of
// times; from inside a callback they answer kZxcloudErrState. zxcloud_uninit without an initialisation
// answers 0, so that a caller may always begin with it. Everything else from any thread at any time (an error
// while not initialised, except zxcloud_setopt and zxcloud_set_otherconnaddr, whose values are kept for the
// next initialisation); calls that block are cancellation points and end when the library is uninitialised.
// Callbacks run on the library's threads, one at a time (log also on a thread that is inside zxcloud_init or
// zxcloud_tconf_check), may be called as soon as zxcloud_init has begun and never after zxcloud_uninit
// returned. Texts are copied; callback texts live for the call.
// The library sets SIGPIPE to ignored in the process.
#pragma once

#include <cstdint>

#include "platform/Api.h"

// Module and level as the log callback receives them; the level is one below the agent's (0 detail ... 3
// error).
using zxlog_module = int;
using zxlog_level = int;
inline constexpr zxlog_module kZxcloudLogModule = 3;

enum : uint32_t {
  kZxcloudErrState = 0xC0010001,     // not initialised, or already initialised
  kZxcloudErrArgument = 0xC0010002,  // null or malformed argument
  kZxcloudErrConfig = 0xC0010003,    // configuration file unreadable, or no usable address in it
  kZxcloudErrNetwork = 0xC0010004,   // the far side could not be reached
  kZxcloudErrTls = 0xC0010005,       // certificate or protocol refused; the log names which
  kZxcloudErrTimeout = 0xC0010006,   // not acknowledged within the time-out
  kZxcloudErrRefused = 0xC0010007,   // the far side answered with an error
  kZxcloudErrFull = 0xC0010008,      // the outbound bound is reached, or the disk is full
  kZxcloudErrTooLong = 0xC0010009,   // larger than the library sends
  kZxcloudErrSpool = 0xC001000A,     // the spool's file cannot be used; the log names the reason
};

extern "C" {

struct zxcloud_record {
  const char* config_path;  // zxagent.json (object "tconf", object "zxcloudconf")
  const char* channel_id;
  int (*push)(int pcid, const char* text);
  int (*tconf)(int flag, const char* text);             // flag 2: the PCID table
  int (*connect)(const char* ip, unsigned short port);  // long connection up
  int (*disconnect)(void);
  void (*log)(int module, int level, const char* text);
  int (*poll)(int flag, const char* text, int length);
  int (*data)(int flag, int type, const char* text,
              int length);  // 1 short, 2 long ("local;remote"), 3 tconf, 5 poll
};

ZX_API uint32_t zxcloud_init(const zxcloud_record* record);
ZX_API uint32_t zxcloud_uninit(void);
// key=value pairs joined by ":", a value ends at the next ":key="; unknown keys are kept and ignored. Keys:
// mid, m2, platid, localip, cloudtcp_disable (1: no long connection), disable_hb (1: no keep-alive messages
// on it), which count from the next connection on, and allowdebug (1: lines of level 0), which counts at
// once.
ZX_API uint32_t zxcloud_setopt(const char* text);
ZX_API uint32_t zxcloud_getopt(char* buffer,
                               int capacity);  // effective options and link state, cut to capacity
// One more address (or list) of the configuration service, tried behind those of the file; "" for none.
ZX_API uint32_t zxcloud_set_otherconnaddr(const char* address);
ZX_API uint32_t zxcloud_tconf_check(const char* address);  // blocks up to 10 s
// Priorities 0..3 and 10..13, 0 first. Non-blocking: 0 says that the message is synced to disk and will be
// delivered, also after a crash; the call takes as long as the disk does, and an error keeps nothing.
// Blocking: 0 says that the far side has acknowledged; nothing is written to disk.
ZX_API uint32_t zxcloud_send(const char* data, int length, int priority);
ZX_API uint32_t zxcloud_send_sync(const char* data, int length, int priority, int timeout_ms);
ZX_API uint32_t zxcloud_send_pollmsg(const char* data, int length);  // blocks until answered (at most 30 s)

}  // extern "C"
