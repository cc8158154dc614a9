// The IPv4 routing state machine: whether routing is on for one VRF.
//
// Context: the owning activity's thread; every entry point runs synchronously, either from
// the machine's construction, from reflection, or from a reactor callback inside a setter of
// the followed configuration or hardware status. Nothing here is locked.
#include "fwk/RoutingSm.h"

#include "Kal/Tracing.h"

KAL_TRACE_HANDLE("RidgeRoutingSm", "RoutingSm");

namespace Ridge {

RoutingSm::Ptr RoutingSm::RoutingSmIs(Ip::VrfName const& vrfName,
                                      Kal::Ptr<Routing::Config const> const& routingConfig,
                                      Kal::Ptr<Routing::RoutingInfo> const& routingInfo,
                                      Kal::Ptr<Routing::Hardware::Status const> const& hw) {
    Ptr sm = new RoutingSm(vrfName);
    // Each new reactor with an input runs handleRouting once; not initialized yet, both passes
    // only say so.
    sm->newRoutingConfig(routingConfig);
    sm->routingInfoIs(routingInfo);
    sm->newRoutingHardwareStatus(hw);
    sm->initializedIs(false);
    sm->handleInitialized(); // the first publication
    return sm;
}

void RoutingSm::handleInitialized() {
    KAL_TRACE_OBJECT(0, vrfName(),
                     "void Ridge::RoutingSm::handleInitialized()" << " for vrf " << vrfName());
    initializedIs(true);
    handleRouting();
}

void RoutingSm::handleRouting() {
    if (!initialized()) {
        KAL_TRACE_OBJECT(0, vrfName(), "void Ridge::RoutingSm::handleRouting()"
                                           << " for vrf " << vrfName() << " not init!!");
        return;
    }
    // The hardware status is read here only when the text is composed.
    KAL_TRACE_OBJECT(0, vrfName(),
                     "void Ridge::RoutingSm::handleRouting()"
                         << " for vrf " << vrfName() << " vrs is "
                         << routingHardwareStatus()->vrfRoutingSupported());
    KAL_ASSERT(routingConfig() && routingInfo());
    bool routing = routingConfig()->routing();
    KAL_TRACE_OBJECT(0, vrfName(),
                     "void Ridge::RoutingSm::handleRouting()"
                         << " for vrf " << vrfName() << " routingConfig says routing is "
                         << routing);
    // The default VRF follows the configuration alone; another VRF needs the platform's
    // VRF routing support.
    Ip::VrfName const defaultVrf("default");
    if (!(vrfName() == defaultVrf) && !routingHardwareStatus()->vrfRoutingSupported()) {
        KAL_TRACE_OBJECT(0, vrfName(),
                         "void Ridge::RoutingSm::handleRouting()"
                             << " for vrf " << vrfName()
                             << " vrf routing not supported, forcing routing to false");
        routing = false;
    }
    // Written at every pass; suppressing an unchanged value is the info's business.
    routingInfo()->routingIs(routing);
}

RoutingSm::Ptr RoutingSmRoot::routingSmIs(Ip::VrfName const& vrfName,
                                          Kal::Ptr<Routing::Config const> const& routingConfig,
                                          Kal::Ptr<Routing::RoutingInfo> const& routingInfo,
                                          Kal::Ptr<Routing::Hardware::Status const> const& hw) {
    // The same VRF (by content) and the very same three objects: keep the machine.
    if (routingSm_ && routingSm_->vrfName() == vrfName &&
        routingSm_->routingConfig() == routingConfig &&
        routingSm_->routingInfo() == routingInfo && routingSm_->routingHardwareStatus() == hw) {
        return routingSm_;
    }
    return newRoutingSm(vrfName, routingConfig, routingInfo, hw);
}

RoutingSm::Ptr RoutingSmRoot::newRoutingSm(Ip::VrfName const& vrfName,
                                           Kal::Ptr<Routing::Config const> const& routingConfig,
                                           Kal::Ptr<Routing::RoutingInfo> const& routingInfo,
                                           Kal::Ptr<Routing::Hardware::Status const> const& hw) {
    RoutingSm::Ptr sm = RoutingSm::RoutingSmIs(vrfName, routingConfig, routingInfo, hw);
    routingSm_ = sm; // releases the previous machine
    routingSmNotify();
    return sm;
}

void RoutingSmRoot::routingSmDel() {
    if (!routingSm_) return;
    routingSm_ = nullptr;
    routingSmNotify();
}

} // namespace Ridge
