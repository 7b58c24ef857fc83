// Values fixed per product build; the product's definitions unit provides them.
#pragma once

#include <cstdint>

extern const char* const QVK_Framework_BuildID;
extern const std::int64_t QVK_Framework_BuildTime;
extern const std::int32_t QVK_Framework_IDA_Product;
extern const std::int32_t QVK_Framework_IDA_Release;
extern const bool QVK_Framework_NetworkDatabase_ProjectSpecific;
extern const bool QVK_Framework_PhoneDatabase_ProjectSpecific;
extern const bool QVK_Framework_RoamingDatabase_ProjectSpecific;
extern const bool QVK_Framework_PortsDatabase_ProjectSpecific;
extern const bool QVK_Framework_CommandDatabase_ProjectSpecific;
extern const std::int32_t QVK_Framework_Ports_BlockOld;
// 1 is "x86", 2 is "ppc".
extern const std::int32_t QVK_Framework_CPU;
