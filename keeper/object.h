/*
 * The keeper's own object on the bus (com.norvel.DuskvaleKeeper.xml), made by gdbus-codegen(1):
 * properties that announce their changes, and methods, which the bus lets only root call.
 */
#pragma once

#include "keeper/edge/call.h"
#include "keeper/keeper-object.h"
#include "keeper/policy/policies.h"

namespace keeper {

/* `deliver` gets an Asked for each call of a method. The object lasts as long as the process. */
DuskvaleKeeper *export_object(GDBusConnection *bus, Deliver &deliver);

/* Answers a call; each once. */
void answer_call(void *call, bool ok, const std::string &text);

/* What is known now, in its properties. */
void publish(DuskvaleKeeper *object, const Known &known, const Verdict &verdict,
             const std::string &freeze_changed);

} // namespace keeper
