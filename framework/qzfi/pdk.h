// Everything a plug-in is written against.
#ifndef QZFI_PDK_H
#define QZFI_PDK_H

#include "configuration.h"
#include "errors.h"
#include "execpipe.h"
#include "folders.h"
#include "messages.h"
#include "pluginbase.h"
#include "privatedata.h"
#include "records.h"
#include "refcount.h"
#include "session.h"
#include "stringtool.h"
#include "trace.h"

#endif  // QZFI_PDK_H
