// Foundation, AppKit and ServiceManagement: the classes, over GCC's Objective-C runtime.

#include "FakeFrameworks/FakeFrameworks.h"

#include <cstring>

#import <AppKit/AppKit.h>
#import <ServiceManagement/ServiceManagement.h>

extern "C" {
id class_createInstance(Class type, std::size_t extraBytes);
Class objc_get_class(const char* name);
using Method = void (*)(id, SEL, id);
Method objc_msg_lookup(id receiver, SEL selector);
}

namespace {

using namespace verdo;

std::map<const void*, int> owners;  // of objects that are not the system's own

/// Those that wait for the end of their pool; pools nest.
std::vector<std::vector<NSObject*>>& pools() {
  static std::vector<std::vector<NSObject*>> all;
  return all;
}

struct Observation {
  id observer;
  SEL selector;
  std::string name;
};
std::vector<Observation> observations;
const char* const kDidWake = "NSWorkspaceDidWakeNotification";

long loginItemStatus = 0;
std::string loginItemError;
bool symbolsMissing = false;
FakeContext* current = nullptr;

/// One that the system keeps, and nobody owns.
id sharedOf(Class type) { return class_createInstance(type, 0); }

std::string toText(double number) { return std::to_string(static_cast<int>(number * 10)); }

}  // namespace

namespace verdo::fake {

void wakeUp() {
  for (const auto& it : std::vector(observations)) {
    if (it.name == kDidWake)
      objc_msg_lookup(it.observer, it.selector)(it.observer, it.selector, nil);
  }
}
int observers() { return static_cast<int>(observations.size()); }
void setLoginItemStatus(long status) { loginItemStatus = status; }
void setLoginItemError(const std::string& description) { loginItemError = description; }
void setSymbolsMissing(bool areThey) { symbolsMissing = areThey; }
void* makeView() { return [[NSView alloc] init]; }
void releaseView(void* view) { [static_cast<NSView*>(view) release]; }

}  // namespace verdo::fake

@implementation NSObject
+ (void)initialize {
}
+ (instancetype)alloc {
  NSObject* const made = class_createInstance(self, 0);
  owners[made] = 1;
  fake::countObject(1);
  return made;
}
- (instancetype)init {
  return self;
}
- (instancetype)retain {
  ++owners[self];
  return self;
}
- (void)release {
  if (owners[self] <= 0) return fake::countOverRelease();
  if (--owners[self] == 0) [self dealloc];
}
- (instancetype)autorelease {
  // Without a pool it is nobody's: that leaks, here as there.
  if (!pools().empty()) pools().back().push_back(self);
  return self;
}
- (void)dealloc {
  fake::countObject(-1);
  fake::keepForEver(self);
}
@end

@implementation NSAutoreleasePool
- (instancetype)init {
  pools().emplace_back();
  return self;
}
- (void)drain {
  const auto due = pools().back();
  pools().pop_back();
  for (NSObject* const object : due) [object release];
  [self release];
}
@end

@interface FakeString : NSString {
 @public
  std::string* text;
}
@end
@implementation NSString
+ (instancetype)stringWithUTF8String:(const char*)text {
  FakeString* const made = [[FakeString alloc] init];
  made->text = new std::string(text);
  return [made autorelease];
}
- (const char*)UTF8String {
  return "";
}
@end
@implementation FakeString
- (const char*)UTF8String {
  return text->c_str();
}
- (void)dealloc {
  delete text;
  text = nullptr;
  [super dealloc];
}
@end
@implementation NSConstantString
- (const char*)UTF8String {
  return bytes;
}
@end

@implementation NSError
- (NSString*)localizedDescription {
  return [NSString stringWithUTF8String:loginItemError.c_str()];
}
@end

@implementation NSNotification
@end

@implementation NSNotificationCenter
- (void)addObserver:(id)observer
           selector:(SEL)selector
               name:(NSString*)name
             object:(id)__unused from {
  observations.push_back({observer, selector, [name UTF8String]});  // not retained, as there
}
- (void)removeObserver:(id)observer {
  std::erase_if(observations, [&](const auto& it) { return it.observer == observer; });
}
@end

NSString* const NSWorkspaceDidWakeNotification = @"NSWorkspaceDidWakeNotification";

@implementation NSWorkspace
+ (NSWorkspace*)sharedWorkspace {
  static NSWorkspace* const shared = sharedOf(self);
  return shared;
}
- (NSNotificationCenter*)notificationCenter {
  static NSNotificationCenter* const shared = sharedOf(objc_get_class("NSNotificationCenter"));
  return shared;
}
@end

@implementation NSApplication
+ (NSApplication*)sharedApplication {
  static NSApplication* const shared = sharedOf(self);
  return shared;
}
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)policy {
  fake::record("setActivationPolicy " + std::to_string(policy));
  return YES;
}
- (void)activateIgnoringOtherApps:(BOOL)doesIt {
  fake::record("activateIgnoringOtherApps " + std::to_string(doesIt));
}
@end

@implementation NSColor
+ (NSColor*)clearColor {
  static NSColor* const clear = class_createInstance(self, 0);
  return clear;
}
@end

@implementation NSWindow
- (void)setLevel:(NSWindowLevel)level {
  fake::record("setLevel " + std::to_string(level));
}
- (void)setCollectionBehavior:(NSWindowCollectionBehavior)behavior {
  fake::record("setCollectionBehavior " + std::to_string(behavior));
}
- (void)setHidesOnDeactivate:(BOOL)doesIt {
  fake::record("setHidesOnDeactivate " + std::to_string(doesIt));
}
- (void)setHasShadow:(BOOL)hasIt {
  fake::record("setHasShadow " + std::to_string(hasIt));
}
- (void)setOpaque:(BOOL)isIt {
  fake::record("setOpaque " + std::to_string(isIt));
}
- (void)setBackgroundColor:(NSColor*)color {
  fake::record(color == [NSColor clearColor] ? "setBackgroundColor clear" : "setBackgroundColor");
}
@end

@implementation NSView
- (NSWindow*)window {
  static NSWindow* const shared = sharedOf(objc_get_class("NSWindow"));
  return shared;
}
@end

const NSFontWeight NSFontWeightRegular = 0;

@implementation NSImageSymbolConfiguration
+ (instancetype)configurationWithPointSize:(double)size weight:(NSFontWeight)weight {
  fake::record("symbol " + toText(size) + " " + toText(weight));
  return [[[self alloc] init] autorelease];
}
@end

/// Symbols are 16 points wide and 12 high, and all black.
@implementation NSImage
+ (NSImage*)imageWithSystemSymbolName:(NSString*)name
             accessibilityDescription:(NSString*)description {
  fake::record(std::string("symbol ") + [name UTF8String] + " (" + [description UTF8String] + ")");
  return symbolsMissing ? nil : [[[self alloc] init] autorelease];
}
- (NSImage*)imageWithSymbolConfiguration:(NSImageSymbolConfiguration*)configuration {
  return configuration ? [[[NSImage alloc] init] autorelease] : nil;
}
- (NSSize)size {
  return {16, 12};
}
- (void)drawInRect:(NSRect)rect {
  CGContextFillEllipseInRect(current, rect);
}
@end

/// Counts its y from below, as a bitmap's context does, and fills whole boxes.
struct FakeContext {
  std::uint8_t* data;
  std::size_t height;
  std::size_t bytesPerRow;
  double scale = 1;
  std::uint32_t color = 0xff000000;
};

CGColorSpaceRef CGColorSpaceCreateDeviceRGB() {
  fake::countObject(1);
  return reinterpret_cast<CGColorSpaceRef>(&current);
}
void CGColorSpaceRelease(CGColorSpaceRef) { fake::countObject(-1); }
CGContextRef CGBitmapContextCreate(void* data, std::size_t, std::size_t height, std::size_t bits,
                                   std::size_t bytesPerRow, CGColorSpaceRef, std::uint32_t info) {
  if (bits != 8 || info != (kCGImageAlphaPremultipliedFirst | kCGBitmapByteOrder32Host)) {
    return nullptr;
  }
  fake::countObject(1);
  return new FakeContext{static_cast<std::uint8_t*>(data), height, bytesPerRow};
}
void CGContextRelease(CGContextRef context) {
  delete context;
  fake::countObject(-1);
}
void CGContextScaleCTM(CGContextRef context, double x, double) { context->scale *= x; }
void CGContextSetRGBFillColor(CGContextRef context, double red, double green, double blue,
                              double alpha) {
  const auto byte = [](double part) { return static_cast<std::uint32_t>(part * 255); };
  context->color = byte(alpha) << 24 | byte(red) << 16 | byte(green) << 8 | byte(blue);
}
void CGContextFillEllipseInRect(CGContextRef context, CGRect rect) {
  const auto pixel = [&](double at) { return static_cast<std::size_t>(at * context->scale); };
  for (auto y = pixel(rect.origin.y); y < pixel(rect.origin.y + rect.size.height); ++y) {
    for (auto x = pixel(rect.origin.x); x < pixel(rect.origin.x + rect.size.width); ++x) {
      std::memcpy(context->data + (context->height - 1 - y) * context->bytesPerRow + 4 * x,
                  &context->color, sizeof context->color);
    }
  }
}

namespace {
std::vector<FakeContext*> savedContexts;
}

@interface FakeGraphicsContext : NSGraphicsContext {
 @public
  FakeContext* context;
}
@end
@implementation NSGraphicsContext
+ (void)saveGraphicsState {
  savedContexts.push_back(current);
  fake::countObject(1);
}
+ (void)restoreGraphicsState {
  current = savedContexts.back();
  savedContexts.pop_back();
  fake::countObject(-1);
}
+ (NSGraphicsContext*)graphicsContextWithCGContext:(CGContextRef)context flipped:(BOOL)isFlipped {
  if (isFlipped) return nil;
  FakeGraphicsContext* const made = [[FakeGraphicsContext alloc] init];
  made->context = context;
  return [made autorelease];
}
+ (void)setCurrentContext:(NSGraphicsContext*)context {
  current = static_cast<FakeGraphicsContext*>(context)->context;
}
@end
@implementation FakeGraphicsContext
@end

@implementation SMAppService
+ (SMAppService*)mainAppService {
  return [[[self alloc] init] autorelease];
}
- (SMAppServiceStatus)status {
  return static_cast<SMAppServiceStatus>(loginItemStatus);
}
- (BOOL)registerAndReturnError:(NSError**)error {
  fake::record("register");
  if (loginItemError.empty()) return YES;
  *error = [[[NSError alloc] init] autorelease];
  return NO;
}
- (BOOL)unregisterAndReturnError:(NSError**)error {
  fake::record("unregister");
  if (loginItemError.empty()) return YES;
  *error = [[[NSError alloc] init] autorelease];
  return NO;
}
@end
