#pragma once

#include <map>
#include <string>

#include "Scene.h"
#include "Workplace.h"

namespace faults {

// The scenes that programs are tried in, each made by the life that leads there: "blank", "crashed"
// (interrupted, without a start since), "started" (and a start), "clipped" (and real video
// recorded), "stopped" (another life, ended well) and "saved" (its database, too); on a card with
// more chunks "keepable" (a life with events, ended well) and "kept" (what one of them shows, too).
class Stage {
 public:
  explicit Stage(Workplace& workplace) : workplace_(workplace) {}

  // Makes them, in the workplace's view. `media`: "clipped", too. "", or what failed.
  std::string make(bool media);
  const Scene& at(const std::string& name) const { return scenes_.at(name); }

 private:
  void take(const std::string& name);
  void makeBlank();
  std::string makeLives(bool media);
  std::string makeCrashed();
  std::string makeClipped();
  std::string makeStopped();
  std::string makeKept();
  // Whether the server was there all the time is seen from what `arguments` did.
  std::string besideServer(const std::vector<std::string>& arguments);

  Workplace& workplace_;
  std::map<std::string, Scene> scenes_;
};

}  // namespace faults
