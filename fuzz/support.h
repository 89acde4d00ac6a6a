// What the fuzz targets share. A false assertion is a finding, memory not given back is one, too.
#pragma once

#include <cassert>
#include <fuzzer/FuzzedDataProvider.h>

#include "app_lan_state.h"

void fuzz(FuzzedDataProvider &&input); // each target's own: takes one input
void run_task(VosTaskEntry entry);     // of a LAN task: until it has digested what was posted
coap_address_t modem_address(uint32_t number);
extern std::string traced; // since the input began; each write was one line of vos_trace.h
