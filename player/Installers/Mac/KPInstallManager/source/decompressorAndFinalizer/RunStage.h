// Stages whose failure ends nothing but themselves.
#pragma once

#import <Foundation/Foundation.h>

/// Calls `function` with `context` as RunStage runs a stage.
void RunStageFunction(NSString* name, void (*function)(void*), void* context);

/// Runs `stage`, which takes no arguments, and catches each Objective-C and C++ exception that
/// leaves it, which is logged with the stage's `name`. Never raises: an installation that has
/// unpacked its files must not be reported as failed because of what comes after.
template <typename Stage>
void RunStage(NSString* name, Stage stage) {
  RunStageFunction(
      name, [](void* context) { (*static_cast<Stage*>(context))(); }, &stage);
}
