#include "shr/dbpid.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "config/dballoc.h"
#include "config/dbob.h"
#include "config/dbprop.h"
#include "nmtrace.h"
#include "shr/logging.h"

unsigned dbpid_pause = 1;

namespace {

constexpr const char* kPid = "pid";
constexpr const char* kPidLock = "pidlock";
constexpr int kMsgLockTimeout = 528;
constexpr int kMsgDbError = 529;

void log_db_error(int code)
{
    log_catmsg(LOG_SET, kMsgDbError, "%s: VZ database error %d", prog, code);
}

// Takes "pidlock": 0 taken, VZDB_SEMLIMIT after the last refusal, or
// another database code. With create, the object is made (and given its
// owner, group and mode) before every attempt.
int take_pidlock(const vz_kvc* object, bool create, int owner, int group, int* failed_create)
{
    for (int attempt = 1;; attempt++) {
        if (create) {
            int rc = vzdb_ob_create(object);
            if (rc != 0) {
                *failed_create = 1;
                return rc;
            }
            vzdb_ob_setugm(object, owner, group, 0775);  // best effort
        }
        int rc = vzdb_prop_semadd(object, kPidLock, 1, 1);
        if (rc != VZDB_SEMLIMIT || attempt == DBPID_TRIES)
            return rc;
        sleep(dbpid_pause);
    }
}

// Gives "pidlock" back; 0 or the database code.
int release_pidlock(const vz_kvc* object)
{
    return vzdb_prop_delete(object, kPidLock);
}

// The registered id: 0 with *there (a non-empty "pid") and *pid (its
// number), or the database code.
int read_pid(const vz_kvc* object, bool* there, int* pid)
{
    char* value = nullptr;
    int rc = vzdb_prop_get(object, kPid, &value);
    *there = value != nullptr && value[0] != '\0';
    *pid = *there ? atoi(value) : 0;
    vzdb_strfree(value);
    return rc;
}

// A process counts as running unless kill says there is no such process
// (one that we may not signal is running too). Numbers below 1 name
// process groups for kill, never a process: a registration holding one is
// stale.
bool running(int pid)
{
    return pid > 0 && (kill(pid_t(pid), 0) == 0 || errno != ESRCH);
}

}  // namespace

int db_addpid(const vz_kvc* object, int owner, int group)
{
    int failed_create = 0;
    int rc = take_pidlock(object, true, owner, group, &failed_create);
    if (rc == VZDB_SEMLIMIT) {
        log_catmsg(LOG_SET, kMsgLockTimeout, "%s: Timed out waiting for pid lock", prog);
        TRACE(err, 1, "db_addpid: can't get pid lock after %d tries\n", DBPID_TRIES);
        return -1;
    }
    if (rc != 0) {
        log_db_error(rc);
        if (failed_create != 0)
            TRACE(err, 1, "db_addpid: vzdb_ob_create error %d\n", rc);
        else
            TRACE(err, 1, "db_addpid: vzdb_prop_semadd error %d\n", rc);
        return -1;
    }

    int result = 1;
    bool there = false;
    int pid = 0;
    rc = read_pid(object, &there, &pid);
    if (rc != 0) {
        log_db_error(rc);
        TRACE(err, 1, "db_addpid: vzdb_prop_get error %d\n", rc);
        result = -1;
    } else if (there && pid == int(getpid())) {
        result = 1;
    } else if (there && running(pid)) {
        result = 0;
    } else {
        char text[16];
        snprintf(text, sizeof text, "%d", int(getpid()));
        rc = vzdb_prop_put(object, kPid, text);
        if (rc != 0) {
            log_db_error(rc);
            TRACE(err, 1, "db_addpid: vzdb_prop_put error %d\n", rc);
            result = -1;
        }
    }
    rc = release_pidlock(object);
    if (rc != 0) {
        log_db_error(rc);
        TRACE(err, 1, "db_addpid: vzdb_prop_delete error %d\n", rc);
        return -1;
    }
    return result;
}

int db_delpid(const vz_kvc* object)
{
    int unused = 0;
    int rc = take_pidlock(object, false, -1, -1, &unused);
    if (rc == VZDB_SEMLIMIT) {
        log_catmsg(LOG_SET, kMsgLockTimeout, "%s: Timed out waiting for pid lock", prog);
        TRACE(err, 1, "db_delpid: can't get pid lock after %d tries\n", DBPID_TRIES);
        return -1;
    }
    if (rc != 0) {
        log_db_error(rc);
        TRACE(err, 1, "db_delpid: vzdb_prop_semadd error %d\n", rc);
        return -1;
    }

    int result = 1;
    bool there = false;
    int pid = 0;
    rc = read_pid(object, &there, &pid);
    if (rc != 0) {
        log_db_error(rc);
        TRACE(err, 1, "db_delpid: vzdb_prop_get error %d\n", rc);
        result = -1;
    } else if (there && pid != int(getpid())) {
        result = 0;
    } else {
        rc = vzdb_prop_delete(object, kPid);
        if (rc != 0) {
            log_db_error(rc);
            TRACE(err, 1, "db_delpid: vzdb_prop_delete(%s) error %d\n", kPid, rc);
            result = -1;
        }
    }
    rc = release_pidlock(object);
    if (rc != 0) {
        log_db_error(rc);
        TRACE(err, 1, "db_delpid: vzdb_prop_delete(%s) error %d\n", kPidLock, rc);
        return -1;
    }
    return result;
}
