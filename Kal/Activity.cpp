#include "Kal/Activity.h"

#include <sstream>

namespace Kal {

Ptr<Activity> Activity::current() {
    thread_local Ptr<Activity> activity = [] {
        std::ostringstream name;
        name << "thread-" << std::this_thread::get_id();
        return Ptr<Activity>(new Activity(Name(name.str())));
    }();
    return activity;
}

} // namespace Kal
