// The one header through which product code reaches COM, OLE Automation, OLE DB and
// Win32. On Windows it is the SDK; on POSIX the portability layer with the same names,
// values and layout.
#pragma once

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
#include <ole2.h>
#include <oleauto.h>
#include <oledb.h>
#include <oledberr.h>
#include <msdadc.h>
#include <msdaguid.h>
#else
#include "posix/Types.h"
#include "posix/OleAuto.h"
#include "posix/Com.h"
#include "posix/Time.h"
#include "posix/OleDb.h"
#include "posix/ErrorRecords.h"
#ifndef INFINITE
#define INFINITE 0xFFFFFFFF
#endif
#endif

#include "Sync.h"
