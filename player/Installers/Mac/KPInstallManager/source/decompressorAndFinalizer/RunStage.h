// Running a stage so that its failure does not end the run.
#pragma once

#import <Foundation/Foundation.h>

/// Calls `function` with `context` as RunStage runs a stage.
void RunStageFunction(NSString* name, void (*function)(void*), void* context);

/// Runs `stage`, which takes no arguments. Catches every Objective-C and C++ exception from it, and
/// logs the reason with the stage's `name`. Never raises: an installation that has unpacked its
/// files must not be reported as failed because a later stage fails.
template <typename Stage>
void RunStage(NSString* name, Stage stage) {
  RunStageFunction(
      name, [](void* context) { (*static_cast<Stage*>(context))(); }, &stage);
}
