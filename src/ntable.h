#pragma once

// The local name table: the NetBIOS names that local clients added, which
// this host claims, defends and answers for; mirrored into the NetBIOS
// driver ("nbu nexus") when the configuration enables its transport.

#include <cstddef>
#include <cstdint>

// Status codes of the table; they go back to clients unchanged.
constexpr int NT_NOMEM = -3;    // no memory for a new entry
constexpr int NT_PRESENT = -5;  // the name is already in the table
constexpr int NT_ABSENT = -6;   // the name is not in the table

// Entry flags; the other bits are kept as the client gave them.
constexpr uint32_t NT_GROUP = 0x1;    // a group name
constexpr uint32_t NT_PENDING = 0x2;  // claim pending, until broadcast twice without a conflict

struct nt_entry {
    nt_entry* next;     // null at the end
    uint8_t name[16];   // compared as 16 bytes, exactly
    uint32_t flags;
    int32_t count;      // claim broadcasts sent for this name
    nt_entry* hash_next;  // the next entry of the same lookup bucket (ntable's own)
};

// The first entry, null when the table is empty. Entries stay in the order
// they were added; no two hold the same 16 bytes.
extern nt_entry* n_table;

// The entry holding the 16-byte name, or null. With the driver transport the
// driver is asked first, and a name it no longer holds is released on the
// network and removed: a search can free the entry it was asked for.
nt_entry* nt_search(const uint8_t* name);
nt_entry* nt_icsearch(const uint8_t* name);  // the same lookup as nt_search
// Appends the name with flags | NT_PENDING and count 0; 0, NT_PRESENT or NT_NOMEM.
int nt_add(const uint8_t* name, uint32_t flags);
// Removes the name without announcing it; 0, or NT_ABSENT.
int nt_del(const uint8_t* name);
// Who took one of our names from us: a station answering our claim, an
// agent, a WINS server. Each has its counter and its trace line.
enum class NtLoss { network, agent, wins };
// Another owner holds the name: messages 186 and 187 (owner as text), the
// counter of by, and the name leaves the table without being announced.
void nt_lost(const uint8_t* name, const char* owner, NtLoss by);
// With the driver transport: every name that the driver no longer holds (or
// whose check fails) is released on the network and removed. Run before a
// listing of the table.
void tables_sync();

// The NetBIOS driver.

inline constexpr const char* NBUNX_DEVICE = "/dev/vznbu_nx";

// Command words of the driver requests.
constexpr int NBUNX_ADD = 0x4217;
constexpr int NBUNX_DEL = 0x4218;
constexpr int NBUNX_CHK = 0x4219;

// Kind words: add sends 1 or 2; check returns 2 for a group name.
constexpr int32_t NBUNX_KIND_UNIQUE = 1;
constexpr int32_t NBUNX_KIND_GROUP = 2;
// State word of a name that the driver has given up.
constexpr int32_t NBUNX_STATE_DROPPED = 2;

// Flags that nbunx_namechk builds from the returned block.
constexpr int NBCHK_GROUP = 0x1;    // kind word 2
constexpr int NBCHK_ACTIVE = 0x2;   // state word 0
constexpr int NBCHK_DROPPED = 0x4;  // state word 2: the name must go

// The data block of every driver request, integers in host byte order.
//   0 zero | 4 name (16) | 20 kind | 24 state | 28 zero (16)
struct nbunx_req {
    int32_t zero1;
    uint8_t name[16];
    int32_t kind;
    int32_t state;
    uint8_t zero2[16];
};
static_assert(sizeof(nbunx_req) == 44);
static_assert(offsetof(nbunx_req, name) == 4 && offsetof(nbunx_req, kind) == 20 &&
              offsetof(nbunx_req, state) == 24 && offsetof(nbunx_req, zero2) == 28);

extern int nbunx_fd;  // the driver's descriptor, negative while it is not open

// Opens NBUNX_DEVICE into nbunx_fd; logs message 189 when it cannot.
void nbunx_open();
// The request's result; -1 when it fails or the driver is not open.
int nbunx_nameadd(const uint8_t* name, uint32_t flags);
int nbunx_namedel(const uint8_t* name);
// NBCHK_* flags; -1 when the request fails; 0 when the driver is not open.
int nbunx_namechk(const uint8_t* name);

// The one seam to the driver: sends the block with the command word on fd
// and gets it back, filled in by the driver. Returns the request's result,
// or -1 with errno set. The default issues the STREAMS I_STR request through
// ioctl(); tests put a simulated driver here. Null restores the default.
using nbunx_request_fn = int (*)(int fd, int cmd, nbunx_req* block);
void nbunx_set_request(nbunx_request_fn fn);
