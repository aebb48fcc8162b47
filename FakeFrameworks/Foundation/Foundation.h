#pragma once

// The part of Foundation that the adapters use, without automatic reference counting, for the
// Objective-C runtime that comes with GCC.

#include <CoreFoundation/CoreFoundation.h>

using BOOL = signed char;
using NSInteger = long;
using NSUInteger = unsigned long;
#define YES (static_cast<BOOL>(1))
#define NO (static_cast<BOOL>(0))
#define nil nullptr
#define __unused __attribute__((unused))

struct CGPoint {
  double x;
  double y;
};
struct CGSize {
  double width;
  double height;
};
struct CGRect {
  CGPoint origin;
  CGSize size;
};
using NSRect = CGRect;
using NSSize = CGSize;
inline CGRect CGRectMake(double x, double y, double width, double height) {
  return {{x, y}, {width, height}};
}
inline NSRect NSMakeRect(double x, double y, double width, double height) {
  return CGRectMake(x, y, width, height);
}

__attribute__((objc_root_class))
@interface NSObject {
  Class isa;  // and nothing else: literals have no room for it
}
+ (instancetype)alloc;
- (instancetype)init;
- (instancetype)retain;
- (void)release;
- (instancetype)autorelease;
- (void)dealloc;
@end

/// What @autoreleasepool makes.
@interface NSAutoreleasePool : NSObject
- (void)drain;
@end

@interface NSString : NSObject
+ (instancetype)stringWithUTF8String:(const char*)text;
- (const char*)UTF8String;
@end

/// What literals are.
@interface NSConstantString : NSString {
 @public
  const char* bytes;
  unsigned int size;
}
@end

@interface NSError : NSObject
- (NSString*)localizedDescription;
@end

@interface NSNotification : NSObject
@end

@interface NSNotificationCenter : NSObject
- (void)addObserver:(id)observer selector:(SEL)selector name:(NSString*)name object:(id)object;
- (void)removeObserver:(id)observer;
@end
