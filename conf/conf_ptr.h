// Owning pointer to a configuration model: the model is freed with conf_delete when it goes.
#pragma once

#include <memory>

#include "conf/conf.h"

struct ConfDeleter {
  void operator()(struct conf* c) const { conf_delete(c); }
};
using ConfPtr = std::unique_ptr<struct conf, ConfDeleter>;
