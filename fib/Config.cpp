#include "fib/Config.h"

namespace Routing::Multicast::Fib {

// The clear requests (clearCounterRoute, clearFastdrop, clearMfibCount) are
// edge-triggered requests, not configuration: neither test nor reset them.
bool Config::isDefault() const {
   return !routing() && multipathControl() == MultipathControl::multipathDeterministic && fastdrop() &&
          maxFastdrops() == 1024 && counterRoute().empty();
}

void Config::reset() {
   routingIs(false);
   multipathControlIs(MultipathControl::multipathDeterministic);
   fastdropIs(true);
   maxFastdropsIs(1024);
   counterRouteDelAll();
}

bool VrfConfig::isDefault() const {
   return !routing() && counterMode() == CounterMode::byteMode && !allCounter() &&
          activityPollingInterval() == 60;
}

void VrfConfig::reset() {
   routingIs(false);
   counterModeIs(CounterMode::byteMode);
   allCounterIs(false);
   activityPollingIntervalIs(60);
}

void VrfConfig::doInit() { configIs("default"); }

} // namespace Routing::Multicast::Fib
