#pragma once

// End-to-end lab: the real daemon in private mount and network namespaces
// (fresh tmpfs over /etc/opt, /var/opt, /opt), one or two stations on veths:
//   daemon hd0 10.88.0.1/24, hd1 10.89.0.1/24; stations hs0 10.88.0.2, hs1 10.89.0.2
// The test process is a child subreaper, so the detached daemon's status is
// seen. Every wait has a deadline; a sanitizer report of any program fails the test.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

inline constexpr const char* lab_config_path = "/etc/opt/KORRbase/config.vz";
inline constexpr const char* lab_log_path = "/var/opt/KORRbase/log.nb";
inline constexpr const char* lab_home = "/opt/KORRlibs";
inline constexpr const char* lab_plist_path = "/var/opt/KORRbase/rtdb/realm=NB/program=Halyard/=plist";

enum LabSide { lab_daemon = 0, lab_station1 = 1, lab_station2 = 2 };

inline constexpr int lab_sanitizer_status = 66;

struct LabDatagram {
    std::vector<uint8_t> bytes;
    std::string from;
    uint16_t port = 0;
};

// One time-stamped group of the log: its stamp line, its messages (no tab, no CR LF).
struct LabLogGroup {
    std::string stamp;
    std::vector<std::string> messages;
};

// A log's groups; messages before the first stamp go into one without a stamp.
std::vector<LabLogGroup> lab_parse_log(const std::string& text);

std::string lab_read_file(const std::string& path);

// Counters from "name value" lines, or with a prefix from the Prometheus text
// format (prefix + name + "_total"). {"malformed", line} at a bad line.
std::map<std::string, uint64_t> lab_counters(const std::string& out, const char* prefix = nullptr);

bool lab_wait_for(double seconds, const std::function<bool()>& done);
// The "pid" property of a property-list text, or -1 when there is none.
pid_t lab_plist_pid(const std::string& plist_text);

std::string lab_describe_status(int wstatus);

// gid, then uid (each when >= 0), no supplementary groups, "/" as its folder
// (the test's own may be closed to that user). Safe between fork and exec.
bool lab_become(int uid, int gid);

class Lab {
public:
    Lab() = default;
    ~Lab();  // stops every daemon process, closes sockets, unmounts the tmpfs
    Lab(const Lab&) = delete;
    Lab& operator=(const Lab&) = delete;

    std::string setup(int stations = 1);

    // Ends inside [transport tcpip], so directives of that section can be appended.
    std::string default_config() const;
    bool write_config(const std::string& text);
    bool write_file(const std::string& path, const std::string& text, mode_t mode = 0644);

    // Runs the daemon (or `binary`), as uid/gid when >= 0, and waits for the
    // launching process: its wait status, or -1.
    int launch(const std::vector<std::string>& args, double seconds = 30.0,
               int uid = -1, int gid = -1, const char* binary = nullptr);

    pid_t registered_pid() const;  // -1 when there is none
    // A live registered process, or -1.
    pid_t wait_registered(double seconds = 20.0) const;

    // The default configuration unless one was written; the pid, or -1 (last_error()).
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
    bool wait_log(const std::string& text, double seconds = 20.0) const;
    std::string trace(const std::string& name = "halyard.trc") const;
    bool wait_trace(const std::string& text, const std::string& name = "halyard.trc",
                    double seconds = 20.0) const;

    // The daemon's table of other hosts, dumped anew into its trace:
    // "\nname addr addr" per entry, blanks squeezed, then "\n"; "" when no dump came.
    std::string ens_table();

    static bool udp_port_bound(pid_t pid, uint16_t port);

    // Bound to addr:port ("" = any), broadcasts allowed, owned by the lab; -1 on failure.
    int udp_socket(LabSide side, uint16_t port, const std::string& addr = "");
    bool send_to(int fd, const std::string& addr, uint16_t port,
                 const std::vector<uint8_t>& bytes);
    // A raw IPv4 socket, and one UDP datagram with any source sent through it.
    int raw_socket(LabSide side);
    bool send_raw_udp(int fd, uint32_t from, uint16_t sport, uint32_t to, uint16_t dport,
                      const std::vector<uint8_t>& payload);
    std::optional<LabDatagram> recv(int fd, double seconds);
    // Up to `count` datagrams that satisfy `want` within `seconds`; the others are dropped.
    std::vector<LabDatagram> collect(int fd, size_t count, double seconds,
                                     const std::function<bool(const std::vector<uint8_t>&)>& want);

    // An absolute path, as uid/gid when >= 0: its wait status, or -1 (killed at the deadline).
    int run(LabSide side, const std::vector<std::string>& argv,
            std::string* out = nullptr, double seconds = 30.0, int uid = -1, int gid = -1);
    // Without waiting (output dropped): its pid, or -1.
    pid_t start(LabSide side, const std::vector<std::string>& argv);
    // Its exit status (-1: none), output in *out.
    int halyardctl(const std::vector<std::string>& args, std::string* out = nullptr,
                   int uid = -1, int gid = -1);

    static const char* daemon_addr(int station) { return station == 2 ? "10.89.0.1" : "10.88.0.1"; }
    static const char* station_addr(int station) { return station == 2 ? "10.89.0.2" : "10.88.0.2"; }
    static const char* daemon_ifname(int station) { return station == 2 ? "hd1" : "hd0"; }

    const std::string& last_error() const { return error_; }

private:
    int ns_fd(LabSide side) const;
    pid_t spawn_as(LabSide side, const std::vector<std::string>& args, int out_fd, int uid, int gid);
    void reap();

    bool mounted_ = false;
    bool programs_mounted_ = false;
    bool config_written_ = false;
    int stations_ = 0;
    int daemon_ns_ = -1;
    int station_ns_[2] = {-1, -1};
    std::vector<int> sockets_;
    std::vector<std::pair<pid_t, int>> exits_;   // reaped, not yet reported
    std::string report_dir_;
    std::string sanitizer_exits_;
    std::optional<std::string> saved_env_[2];    // ASAN_OPTIONS, UBSAN_OPTIONS before
    std::string error_;
};

#define LAB_SETUP_OR_SKIP(lab, stations)                     \
    do {                                                     \
        std::string lab_why_ = (lab).setup(stations);        \
        if (!lab_why_.empty())                               \
            GTEST_SKIP() << lab_why_;                        \
    } while (0)
