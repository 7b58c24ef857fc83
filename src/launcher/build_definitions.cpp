// The Launcher's build: its build stamp, processor and which databases are its own.
#include "framework/base/build_definitions.h"

const char* const QVK_Framework_BuildID = "200710.144004";
const std::int64_t QVK_Framework_BuildTime = 1594384805;
const std::int32_t QVK_Framework_IDA_Product = 0;
const std::int32_t QVK_Framework_IDA_Release = 0;
const bool QVK_Framework_NetworkDatabase_ProjectSpecific = false;
const bool QVK_Framework_PhoneDatabase_ProjectSpecific = false;
const bool QVK_Framework_RoamingDatabase_ProjectSpecific = false;
const bool QVK_Framework_PortsDatabase_ProjectSpecific = true;
const bool QVK_Framework_CommandDatabase_ProjectSpecific = false;
const std::int32_t QVK_Framework_Ports_BlockOld = 0;
const std::int32_t QVK_Framework_CPU = 1;
