// The plug-in's frame: construction, init and fini, the node private data,
// and the small operations that only answer the framework.
#include "qzvm_plugin.h"

#include <memory>

using qzfi_pdk_4_4::CFiMessageCatalogFactory;
using qzfi_pdk_4_4::CFiMessageCatalogFactoryPtr;
using qzfi_pdk_4_4::CFiMessageCatalogManagerPtr;
using qzfi_pdk_4_4::CFiPrivateDataConcreteFactory;
using qzfi_pdk_4_4::CFiPrivateDataFactoryPtr;
using qzfi_pdk_4_4::CFiStringTool;
using qzfi_pdk_4_4::CFiTraceLogPtr;
using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;

CQzVMPlugin::CQzVMPlugin() : m_engine(CQzVMEngine::getInstance()) {}

// The engine outlives the plug-in: it keeps no trace log of a plug-in that
// is gone.
CQzVMPlugin::~CQzVMPlugin() {
  if (m_engine->getTraceLog() == m_traceLog) {
    m_engine->registerTraceLog(CFiTraceLogPtr());
  }
}

int CQzVMPlugin::init() {
  QZ_PLUGIN_SCOPE("init");
  return reportingExceptions(
      {"init", kQzVMPluginSource, __LINE__},
      [this] {
        registerMessageCatalog(getCatalogManager(), getProviderName());
        CFiPrivateDataFactoryPtr factory(new CFiPrivateDataConcreteFactory<CQzVMData>());
        if (getPrivateDataManager()) {
          getPrivateDataManager()->registerFactory(factory);
        }
        // The engine lives on from one plug-in to the next: it traces into
        // the current plug-in's log.
        m_engine->registerTraceLog(m_traceLog);
        int result = 0;
        if (m_engine->initEngine() != 0) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::init engine initialization failed");
          result = 30;
        } else if (m_support.isInstalled()) {
          m_support.registerTraceLog(m_traceLog);
        } else {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::init QzVM not installed.");
          result = 30;
        }
        factory.release();
        return result;
      },
      initFailed);
}

// MSG_ERROR_* identifiers resolve in the plug-in's own catalogue.
void CQzVMPlugin::registerMessageCatalog(const CFiMessageCatalogManagerPtr& manager,
                                         const std::string& provider) {
  if (manager) {
    manager->registerFactory(
        CFiMessageCatalogFactoryPtr(new CFiMessageCatalogFactory("root", provider)));
  }
}

int CQzVMPlugin::initFailed(bool reported) {
  if (!reported) {
    return 6;
  }
  pushError("MSG_ERROR_INITIALIZATION_FAILED", {}, kQzVMPluginSource, __LINE__);
  return 30;
}

int CQzVMPlugin::fini() {
  QZ_PLUGIN_SCOPE("fini");
  return 0;
}

int CQzVMPlugin::supportsFiType(qfi_domain* node, char* /*fiType*/) {
  QZ_PLUGIN_SCOPE("supportsFiType");
  if (node != nullptr && node->access != nullptr) {
    QZ_TRACE(m_traceLog, 3,
             "CQzVMPlugin::supportsFiType - supported QFI_ACCESS_NONE as fi access type");
    node->access->type = QFI_ACCESS_NONE;
  }
  return 0;
}

// The framework's configuration parameters and session flows are not the
// plug-in's: these operations only answer that all is well.

int CQzVMPlugin::config(qfi_domain*, int, char*, qfi_confspec*) {
  QZ_PLUGIN_SCOPE("config");
  return 0;
}

int CQzVMPlugin::make(char*, qfi_splitnode**, int, qzfi_objid***, int*) {
  QZ_PLUGIN_SCOPE("make");
  return 0;
}

int CQzVMPlugin::select(char*, qfi_splitnode**, int) {
  QZ_PLUGIN_SCOPE("select");
  return 0;
}

int CQzVMPlugin::isReady(char*, qfi_splitnode**, int) {
  QZ_PLUGIN_SCOPE("isReady");
  return 0;
}

int CQzVMPlugin::enumerateNodes(qfi_node_list**, int*, int, char*) {
  QZ_PLUGIN_SCOPE("enumerateNodes");
  return 0;
}

int CQzVMPlugin::enumerateFims(qfi_fim_list**) {
  QZ_PLUGIN_SCOPE("enumerateFims");
  return 0;
}

// One provider, this plug-in, handling one kind of object.
int CQzVMPlugin::getProviderInfo(qfi_provider_list** list) {
  QZ_PLUGIN_SCOPE("getProviderInfo");
  return reportingExceptions({"getProviderInfo", kQzVMPluginSource, __LINE__}, 6, [&] {
    // Freed also when the framework's builder throws.
    const std::unique_ptr<char*, void (*)(char**)> names(CFiStringTool::tstrduplist({"qzvm"}),
                                                         &CFiStringTool::tstrfreelist);
    const int status = names != nullptr
                           ? qzfi_build_providerlist_node(list, kQzVMPluginName, names.get(), 1)
                           : QFI_E_NOMEM;
    if (status != 0) {
      QZ_TRACE(m_traceLog, 1, "Error in getting provider info");
    }
    return status;
  });
}

CQzVMData* CQzVMPlugin::GetPrivateData(qfi_domain* node) {
  QZ_PLUGIN_SCOPE("GetPrivateData");
  if (node == nullptr || node->pvt == nullptr || !getPrivateDataManager()) {
    return nullptr;
  }
  auto* data = dynamic_cast<CQzVMData*>(getPrivateDataManager()->find(node));
  if (data != nullptr) {
    data->registerTraceLog(m_traceLog);
  }
  return data;
}
