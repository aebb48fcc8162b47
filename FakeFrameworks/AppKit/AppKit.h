#pragma once

// The part of AppKit, and of Core Graphics below it, that the adapters use.

#import <Foundation/Foundation.h>

using CGContextRef = struct FakeContext*;
using CGColorSpaceRef = struct FakeColorSpace*;
enum : std::uint32_t {
  kCGImageAlphaPremultipliedFirst = 2,
  kCGBitmapByteOrder32Host = 2u << 12,
};

extern "C" {
CGColorSpaceRef CGColorSpaceCreateDeviceRGB();
void CGColorSpaceRelease(CGColorSpaceRef space);
CGContextRef CGBitmapContextCreate(void* data, std::size_t width, std::size_t height,
                                   std::size_t bitsPerComponent, std::size_t bytesPerRow,
                                   CGColorSpaceRef space, std::uint32_t bitmapInfo);
void CGContextRelease(CGContextRef context);
void CGContextScaleCTM(CGContextRef context, double x, double y);
void CGContextSetRGBFillColor(CGContextRef context, double red, double green, double blue,
                              double alpha);
void CGContextFillEllipseInRect(CGContextRef context, CGRect rect);

extern NSString* const NSWorkspaceDidWakeNotification;
}

@interface NSWorkspace : NSObject
+ (NSWorkspace*)sharedWorkspace;
- (NSNotificationCenter*)notificationCenter;
@end

using NSApplicationActivationPolicy = NSInteger;
enum : NSApplicationActivationPolicy {
  NSApplicationActivationPolicyRegular = 0,
  NSApplicationActivationPolicyAccessory = 1,
};
@interface NSApplication : NSObject
+ (NSApplication*)sharedApplication;
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)policy;
- (void)activateIgnoringOtherApps:(BOOL)doesIt;
@end

@interface NSColor : NSObject
+ (NSColor*)clearColor;
@end

using NSWindowLevel = NSInteger;
enum : NSWindowLevel { NSNormalWindowLevel = 0, NSFloatingWindowLevel = 3 };
using NSWindowCollectionBehavior = NSUInteger;
enum : NSWindowCollectionBehavior {
  NSWindowCollectionBehaviorCanJoinAllSpaces = 1 << 0,
  NSWindowCollectionBehaviorTransient = 1 << 3,
};
@interface NSWindow : NSObject
- (void)setLevel:(NSWindowLevel)level;
- (void)setCollectionBehavior:(NSWindowCollectionBehavior)behavior;
- (void)setHidesOnDeactivate:(BOOL)doesIt;
- (void)setHasShadow:(BOOL)hasIt;
- (void)setOpaque:(BOOL)isIt;
- (void)setBackgroundColor:(NSColor*)color;
@end

@interface NSView : NSObject
- (NSWindow*)window;
@end

using NSFontWeight = double;
extern "C" const NSFontWeight NSFontWeightRegular;
@interface NSImageSymbolConfiguration : NSObject
+ (instancetype)configurationWithPointSize:(double)size weight:(NSFontWeight)weight;
@end

@interface NSImage : NSObject
+ (NSImage*)imageWithSystemSymbolName:(NSString*)name
             accessibilityDescription:(NSString*)description;
- (NSImage*)imageWithSymbolConfiguration:(NSImageSymbolConfiguration*)configuration;
- (NSSize)size;
- (void)drawInRect:(NSRect)rect;
@end

@interface NSGraphicsContext : NSObject
+ (void)saveGraphicsState;
+ (void)restoreGraphicsState;
+ (NSGraphicsContext*)graphicsContextWithCGContext:(CGContextRef)context flipped:(BOOL)isFlipped;
+ (void)setCurrentContext:(NSGraphicsContext*)context;
@end
