#include "VerdoDriver/Platform/SystemIcon.h"

#include <QImage>
#include <QPixmap>

#import <AppKit/AppKit.h>

namespace verdo {
namespace {

constexpr int kCanvas = 18;  // points, in height and width
constexpr double kSymbolSize = 14;
constexpr double kUpdateDot = 5;
constexpr int kScales[] = {1, 2};

const char* symbolOf(Connection connection) {
  switch (connection) {
    case Connection::notSetUp:
      return "antenna.radiowaves.left.and.right.slash";
    case Connection::connecting:
      return "arrow.triangle.2.circlepath";
    case Connection::online:
      return "antenna.radiowaves.left.and.right";
    case Connection::busy:
      return "antenna.radiowaves.left.and.right.circle.fill";
    case Connection::offline:
      return "exclamationmark.arrow.circlepath";
    case Connection::stopped:
      break;
  }
  return "xmark.octagon";
}

/// Nil when the system has no such symbol.
NSImage* loadSymbol(Connection connection) {
  NSImage* const symbol =
      [NSImage imageWithSystemSymbolName:[NSString stringWithUTF8String:symbolOf(connection)]
                accessibilityDescription:[NSString stringWithUTF8String:wordOf(connection)]];
  return [symbol imageWithSymbolConfiguration:[NSImageSymbolConfiguration
                                                  configurationWithPointSize:kSymbolSize
                                                                      weight:NSFontWeightRegular]];
}

void draw(NSImage* symbol, bool updateAvailable, CGContextRef context, double scale) {
  CGContextScaleCTM(context, scale, scale);
  [NSGraphicsContext saveGraphicsState];
  [NSGraphicsContext setCurrentContext:[NSGraphicsContext graphicsContextWithCGContext:context
                                                                               flipped:NO]];
  const NSSize size = [symbol size];
  [symbol drawInRect:NSMakeRect((kCanvas - size.width) / 2, (kCanvas - size.height) / 2, size.width,
                                size.height)];
  [NSGraphicsContext restoreGraphicsState];
  if (!updateAvailable) return;
  CGContextSetRGBFillColor(context, 0, 0, 0, 1);
  CGContextFillEllipseInRect(context, CGRectMake(kCanvas - kUpdateDot, 0, kUpdateDot, kUpdateDot));
}

QPixmap pixmapOf(NSImage* symbol, bool updateAvailable, int scale) {
  QImage image(kCanvas * scale, kCanvas * scale, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  const CGColorSpaceRef colors = CGColorSpaceCreateDeviceRGB();
  const CGContextRef context = CGBitmapContextCreate(
      image.bits(), static_cast<std::size_t>(image.width()),
      static_cast<std::size_t>(image.height()), 8, static_cast<std::size_t>(image.bytesPerLine()),
      colors, kCGImageAlphaPremultipliedFirst | kCGBitmapByteOrder32Host);
  CGColorSpaceRelease(colors);
  if (context) draw(symbol, updateAvailable, context, scale);
  CGContextRelease(context);
  image.setDevicePixelRatio(scale);
  return QPixmap::fromImage(image);
}

}  // namespace

QIcon systemIcon(Connection connection, bool updateAvailable) {
  @autoreleasepool {
    NSImage* const symbol = loadSymbol(connection);
    if (!symbol) return {};
    QIcon icon;
    for (const int scale : kScales) icon.addPixmap(pixmapOf(symbol, updateAvailable, scale));
    icon.setIsMask(true);  // a template, which the menu bar tints
    return icon;
  }
}

}  // namespace verdo
