#pragma once

// End-to-end lab: the real daemon inside private namespaces, with one or two
// other stations on veth links. The test process first moves into private
// mount and network namespaces (fresh tmpfs over /etc/opt, /var/opt, /opt),
// so nothing reaches the host, and becomes a child subreaper, so the
// detached daemon's exit status can be seen.
//   daemon netns:  hd0 10.88.0.1/24   hd1 10.89.0.1/24 (second station only)
//   station 1:     hs0 10.88.0.2/24   station 2: hs1 10.89.0.2/24
// Every wait is bounded by a deadline in seconds; nothing asserts on speed.
// The sanitizers of every program the lab starts report into a directory of
// the lab; the destructor fails the test on a report.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

// Where the daemon keeps its files (inside the lab's tmpfs).
inline constexpr const char* lab_config_path = "/etc/opt/KORRbase/config.vz";
inline constexpr const char* lab_log_path = "/var/opt/KORRbase/log.nb";
inline constexpr const char* lab_home = "/opt/KORRlibs";
inline constexpr const char* lab_plist_path =
    "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";

// The network namespaces of a lab.
enum LabSide { lab_daemon = 0, lab_station1 = 1, lab_station2 = 2 };

// The exit status the lab gives the sanitizers for a finding.
inline constexpr int lab_sanitizer_status = 66;

struct LabDatagram {
    std::vector<uint8_t> bytes;
    std::string from;     // dotted sender address
    uint16_t port = 0;    // sender port
};

// One time-stamped group of the log: its stamp line, its messages (no tab, no CR LF).
struct LabLogGroup {
    std::string stamp;
    std::vector<std::string> messages;
};

// Moves the process into its private namespaces (once): "" or why to skip.
std::string lab_enter_private_namespaces();

// A log's groups; messages before the first stamp go into one without a stamp.
std::vector<LabLogGroup> lab_parse_log(const std::string& text);

// The whole file, or "" when it cannot be read.
std::string lab_read_file(const std::string& path);

// Counters by name from "name value" lines (text, or jq's reading of the
// JSON), or with a prefix from the Prometheus text format (HELP and TYPE
// lines, prefix + name + "_total"). {"malformed", line} at a bad line.
std::map<std::string, uint64_t> lab_counters(const std::string& out, const char* prefix = nullptr);

// Polls done() until it holds or `seconds` have passed: whether it held.
bool lab_wait_for(double seconds, const std::function<bool()>& done);
// The "pid" property of a property-list text, or -1 when there is none.
pid_t lab_plist_pid(const std::string& plist_text);

// "exited 1", "killed by signal 15": wait statuses readable in failures.
std::string lab_describe_status(int wstatus);

// The one way a test process becomes another user: gid, then uid (each when
// >= 0), no supplementary groups, "/" as its folder (the test's own may be
// closed to that user). Safe between fork and exec.
bool lab_become(int uid, int gid);

class Lab {
public:
    Lab() = default;
    ~Lab();  // stops every daemon process, closes sockets, unmounts the tmpfs
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;

    // Private namespaces and places, 1 or 2 stations: "" or the reason to skip.
    std::string setup(int stations = 1);

    // The configuration naming the daemon's lab interfaces; it ends inside
    // [transport tcpip], so directives of that section can be appended.
    std::string default_config() const;
    bool write_config(const std::string& text);
    bool write_file(const std::string& path, const std::string& text, mode_t mode = 0644);

    // Runs the daemon (or `binary`) in the daemon namespace, as uid/gid when
    // >= 0, and waits for the launching process: its wait status, or -1.
    // A program of the build run as another user runs from a copy the lab
    // makes where every user can reach it (see reachable()).
    int launch(const std::vector<std::string>& args, double seconds = 30.0,
               int uid = -1, int gid = -1, const char* binary = nullptr);

    // The pid registered in the database, -1 when there is none.
    pid_t registered_pid() const;
    // Waits until a live process is registered; its pid, or -1.
    pid_t wait_registered(double seconds = 20.0) const;

    // The default configuration unless one was written, a launch that must
    // exit 0, the registration: the daemon's pid, or -1 (see last_error()).
    pid_t start_daemon(const std::vector<std::string>& args = {}, double seconds = 20.0);

    // SIGTERM, then SIGKILL as a last resort: true when it ended by itself;
    // *wstatus is its wait status when it was our child, else -1.
    bool stop_daemon(pid_t pid, double seconds = 20.0, int* wstatus = nullptr);

    // Waits until `pid` (-1: any re-parented process) has ended: its wait
    // status (-1 when not our child) and pid. False on time-out.
    bool wait_exit(pid_t pid, double seconds, int* wstatus = nullptr,
                   pid_t* which = nullptr);

    std::string log() const { return lab_read_file(lab_log_path); }
    std::vector<LabLogGroup> log_groups() const { return lab_parse_log(log()); }
    // Waits until the log holds `text`.
    bool wait_log(const std::string& text, double seconds = 20.0) const;
    // A file of the home directory, "halyard.trc" by default.
    std::string trace(const std::string& name = "halyard.trc") const;
    bool wait_trace(const std::string& text, const std::string& name = "halyard.trc",
                    double seconds = 20.0) const;

    // The daemon's table of other hosts, dumped anew into its trace:
    // "\nname addr addr" per entry, blanks squeezed, then "\n"; "" when no dump came.
    std::string ens_table();

    // Whether `pid`'s network namespace has a UDP socket bound to `port`.
    static bool udp_port_bound(pid_t pid, uint16_t port);

    // A UDP socket in a lab namespace bound to addr:port ("" = any),
    // broadcasts allowed, owned by the lab; -1 on failure.
    int udp_socket(LabSide side, uint16_t port, const std::string& addr = "");
    bool send_to(int fd, const std::string& addr, uint16_t port,
                 const std::vector<uint8_t>& bytes);
    // A raw IPv4 socket (any source address can be written), owned by the lab.
    int raw_socket(LabSide side);
    // One UDP datagram from `from`:sport to `to`:dport through a raw socket.
    bool send_raw_udp(int fd, uint32_t from, uint16_t sport, uint32_t to, uint16_t dport,
                      const std::vector<uint8_t>& payload);
    // The next datagram, or nothing when none came within `seconds`.
    std::optional<LabDatagram> recv(int fd, double seconds);
    // Up to `count` datagrams that satisfy `want` within `seconds`; the others are dropped.
    std::vector<LabDatagram> collect(int fd, size_t count, double seconds,
                                     const std::function<bool(const std::vector<uint8_t>&)>& want);

    // Runs a command (absolute path) in a lab namespace, as uid/gid when >= 0,
    // its output in *out: its wait status, or -1 (killed at the deadline).
    int run(LabSide side, const std::vector<std::string>& argv,
            std::string* out = nullptr, double seconds = 30.0, int uid = -1, int gid = -1);
    // Starts a command without waiting (output dropped): its pid, or -1.
    pid_t start(LabSide side, const std::vector<std::string>& argv);
    // halyardctl on the daemon's side: its exit status (-1: none), output in *out.
    int halyardctl(const std::vector<std::string>& args, std::string* out = nullptr,
                   int uid = -1, int gid = -1);

    static const char* daemon_addr(int station) { return station == 2 ? "10.89.0.1" : "10.88.0.1"; }
    static const char* station_addr(int station) { return station == 2 ? "10.89.0.2" : "10.88.0.2"; }
    static const char* daemon_ifname(int station) { return station == 2 ? "hd1" : "hd0"; }

    // The sanitizer reports and exits so far; "" if none.
    std::string sanitizer_reports();

    const std::string& last_error() const { return error_; }
    int stations() const { return stations_; }

private:
    int ns_fd(LabSide side) const;
    // fork + exec in a lab namespace as uid/gid; -1 with the reason in error_.
    pid_t spawn_as(LabSide side, const std::vector<std::string>& argv, int out_fd, int uid, int gid);
    // A path to `program` that every user can execute: a program of the build
    // is copied into a tmpfs of the lab, since the checkout may sit below a
    // folder closed to other users (root's home); "" when that fails.
    std::string reachable(const std::string& program);
    void reap();
    void kill_leftovers();
    std::string setup_sanitizer_reports();
    void end_sanitizer_reports();

    bool mounted_ = false;
    bool programs_mounted_ = false;
    bool config_written_ = false;
    int stations_ = 0;
    int daemon_ns_ = -1;
    int station_ns_[2] = {-1, -1};
    std::vector<int> sockets_;
    std::vector<std::pair<pid_t, int>> exits_;   // reaped, not yet reported
    std::string report_dir_;                     // sanitizers' log_path directory
    std::string sanitizer_exits_;                // processes ended by a sanitizer
    std::string saved_env_[2];                   // ASAN_OPTIONS, UBSAN_OPTIONS before
    bool had_env_[2] = {false, false};
    std::string error_;
};

// In a fixture's SetUp(): set up the lab or skip the test with the reason.
#define LAB_SETUP_OR_SKIP(lab, stations)                     \
    do {                                                     \
        std::string lab_why_ = (lab).setup(stations);        \
        if (!lab_why_.empty())                               \
            GTEST_SKIP() << lab_why_;                        \
    } while (0)
