// Device mapping: interface index to forwarding-plane port id and back. Main thread only.
#pragma once

#include <cstdint>

extern "C" {

// 0 when found; else non-zero and the result is left alone.
int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t* phyid);
int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t* ifx);

}  // extern "C"
