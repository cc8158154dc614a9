// Kal::Activity: the thread of control under which an object's reactors run.
//
// Everything of a model object runs synchronously on the thread that owns it: notifications
// are calls made inside the setter that changed an attribute. An activity names that
// thread; a reactor's kalFwkActivity() answers which activity it belongs to. There is no
// scheduler here: the owning program's thread is the activity.
#pragma once

#include "Kal/Ptr.h"
#include "Kal/PtrInterface.h"
#include "Kal/String.h"

#include <thread>

namespace Kal {

class Activity : public PtrInterface {
  public:
    explicit Activity(Name name) : name_(std::move(name)), thread_(std::this_thread::get_id()) {}
    Name const& name() const noexcept { return name_; }
    // The thread the activity runs on (the one that made it).
    std::thread::id thread() const noexcept { return thread_; }
    bool isCurrentThread() const noexcept { return thread_ == std::this_thread::get_id(); }

    // The activity of the calling thread, made on first use on that thread.
    static Ptr<Activity> current();

  private:
    Name name_;
    std::thread::id thread_;
};

} // namespace Kal
