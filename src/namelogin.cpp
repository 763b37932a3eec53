#include "src/namelogin.h"

int transport_tcpip = 0;
int transport_vznbu = 0;
if_entry* my_addr = nullptr;
int my_addr_ct = 0;
uint16_t nmport = 0, dgport = 0, ssport = 0, ndport = 0, ensport = 0;
int ens_client = 0;
uint32_t nda_addr[MAX_NDA] = {};
int nda_ct = 0;
uint32_t broadcast_addr = 0;
char nb_scope[256] = "";
