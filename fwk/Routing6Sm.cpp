// The IPv6 routing state machine: IPv6 routing and the kernel's IPv6 forwarding switch
// follow the configuration alone.
//
// Context: the owning activity's thread, synchronously, as for the IPv4 machine. The kernel
// write is a blocking file write on that thread.
#include "fwk/Routing6Sm.h"

#include "Kal/Tracing.h"
#include "Rix/ProcSys.h"

KAL_TRACE_HANDLE("RidgeRouting6Sm", "Routing6Sm");

namespace Ridge {

namespace {
char const forwardingSwitch[] = "/proc/sys/net/ipv6/conf/all/forwarding";
}

Routing6Sm::Ptr Routing6Sm::Routing6SmIs(Kal::Ptr<Routing6::Config const> const& routingConfig,
                                         Kal::Ptr<Routing6::RoutingInfo> const& routingInfo) {
    Ptr sm = new Routing6Sm();
    sm->newRoutingConfig(routingConfig); // not initialized yet: the reactor's pass does nothing
    sm->routingInfoIs(routingInfo);
    sm->initializedIs(false);
    sm->handleInitialized(); // writes the switch and publishes for the first time
    return sm;
}

void Routing6Sm::handleInitialized() {
    if (initialized()) return; // once only
    initializedIs(true);
    handleRouting();
}

void Routing6Sm::handleRouting() {
    if (!initialized()) return;
    KAL_TRACE_OBJECT(0, "<unknown>", "void Ridge::Routing6Sm::handleRouting()"
                                         << " enabled: " << routingConfig()->routing());
    // The kernel switch first, then the published flag; the write's outcome is not ours to
    // judge (the kernel may refuse it), and the flag follows the configuration regardless.
    Rix::writeProcSys(forwardingSwitch, routingConfig()->routing() ? "1" : "0");
    routingInfo()->routingIs(routingConfig()->routing());
}

Routing6Sm::Ptr Routing6SmRoot::routing6SmIs(Kal::Ptr<Routing6::Config const> const& routingConfig,
                                             Kal::Ptr<Routing6::RoutingInfo> const& routingInfo) {
    if (routing6Sm_ && routing6Sm_->routingConfig() == routingConfig &&
        routing6Sm_->routingInfo() == routingInfo) {
        return routing6Sm_;
    }
    return newRouting6Sm(routingConfig, routingInfo);
}

Routing6Sm::Ptr Routing6SmRoot::newRouting6Sm(Kal::Ptr<Routing6::Config const> const& routingConfig,
                                              Kal::Ptr<Routing6::RoutingInfo> const& routingInfo) {
    Routing6Sm::Ptr sm = Routing6Sm::Routing6SmIs(routingConfig, routingInfo);
    routing6Sm_ = sm;
    routing6SmNotify();
    return sm;
}

void Routing6SmRoot::routing6SmDel() {
    if (!routing6Sm_) return;
    routing6Sm_ = nullptr;
    routing6SmNotify();
}

} // namespace Ridge
