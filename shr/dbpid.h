#pragma once

#include "shr/vzmkkvcv.h"

// The program name, first argument of the operator messages: the daemon's
// start-up (src/maininit) defines it as "Halyard".
extern const char* prog;

// One running instance per machine: the property "pid" of the program's
// database object holds the registered process id, and every change to it
// happens while holding the semaphore property "pidlock" (limit 1).

// Attempts at "pidlock" and the pause after each refusal but the last.
constexpr int DBPID_TRIES = 11;
extern unsigned dbpid_pause;  // seconds, 1; tests shorten it

// Creates the object (owner, group, mode 0775) and registers this process.
// 1 registered (now or already), 0 another running process is registered,
// -1 on an error (logged as message 528 or 529).
int db_addpid(const vz_kvc* object, int owner, int group);

// Removes the registration when it is this process's. 1 removed (or none
// there), 0 another process is registered, -1 on an error.
int db_delpid(const vz_kvc* object);
