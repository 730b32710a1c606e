#pragma once

// A device with a value for every expression name, the values all different so that a mix-up
// shows. Header only: the benchmarks and the fuzz targets use it without the test support
// library.

#include "expression/ExpressionResolver.h"

namespace provtest {

inline void fillTypicalDevice(ExpressionResolver& resolver) {
    resolver.macAddress = "00A0BA0B0C0D";
    resolver.serialNumber = "SN4711";
    resolver.tftpServer = "192.168.1.10";
    resolver.tftpFileName = "boot.cfg";
    resolver.hwMajor = "2";
    resolver.hwMinor = "1";
    resolver.swMajor = "5";
    resolver.swMinor = "3";
    resolver.swBuild = "1042";
    resolver.swDate = "2023-06-01";
    resolver.productName = "GW4000-S";
    resolver.productBaseName = "GW4000";
    resolver.cliMajorVersion = "5";
    resolver.cliMinorVersion = "7";
    resolver.modelName = "Model 4000";
    resolver.oemName = "OEM";
    resolver.hwVersion = "2.1";
    resolver.hwRevision = "B";
    resolver.swVersion = "5.3.1042";
}

}  // namespace provtest
