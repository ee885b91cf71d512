// The plug-in's name tag and the framework singletons it reaches through it.
#ifndef QZVMFI_CONTEXT_H
#define QZVMFI_CONTEXT_H

#include <qzfi/pdk.h>

// Tag type of this plug-in's context singletons.
struct qzvmfi {};

namespace qzvmfi_ctx {
using qzfi_pdk_4_4::CFiContextSingleton;
using TraceLog = CFiContextSingleton<qzfi_pdk_4_4::CFiTraceLog, qzvmfi>;
using ErrorManager = CFiContextSingleton<qzfi_pdk_4_4::CFiErrorManager, qzvmfi>;
using CatalogManager = CFiContextSingleton<qzfi_pdk_4_4::CFiMessageCatalogManager, qzvmfi>;
using PrivateDataManager = CFiContextSingleton<qzfi_pdk_4_4::CFiPrivateDataManager, qzvmfi>;
using SessionManager = CFiContextSingleton<qzfi_pdk_4_4::CFiSessionManager, qzvmfi>;
}  // namespace qzvmfi_ctx

#endif  // QZVMFI_CONTEXT_H
