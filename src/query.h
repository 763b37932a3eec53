#pragma once

// Responses to our own requests: adapter status (node status) and name
// queries. Only what the packet dispatcher hands on is declared here.

struct npkt;

// RFC 1002 4.2.17: a node status request for one of our names.
void answer_adapstat(const npkt* rec);
// RFC 1002 4.2.18: a node status response to one of our requests.
void check_adapstat(const npkt* rec);
// RFC 1002 4.2.13: a name query response to one of our queries.
void check_lookup(const npkt* rec);
