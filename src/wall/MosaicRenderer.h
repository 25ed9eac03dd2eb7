#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace vt {

// One rectangle for the renderer, 64 bytes in this field order.
struct MosaicInstance {
  float rect[4] = {0, 0, 0, 0};  // x, y, width, height in screen points
  float tint[4] = {0, 0, 0, 0};  // red, green, blue, alpha
  float corner = 0;              // corner radius
  float blur = 0;                // edge softness
  float stroke = 0;
  float textured = 0;  // 0.0 or 1.0
  float rotation = 0;  // radians about the rect's top-left corner, positive turns clockwise on screen
  float gradient = 0;  // 0.0 or 1.0: vertical fade
  float pad[2] = {0, 0};
};
static_assert(sizeof(MosaicInstance) == 64);

// A texture the renderer holds for a key; opaque to the engine.
struct MosaicTexture;

// What the engine needs of whatever draws the wall: a size, textures by key
// and a list of instances per frame. The device-backed renderer and the tests'
// recording renderer implement it.
class MosaicRenderer {
 public:
  virtual ~MosaicRenderer() = default;

  // Pixel size is round(points x scale), at least 1.
  virtual void resize(float width, float height, float scale) = 0;
  virtual int pixelWidth() const = 0;
  virtual int pixelHeight() const = 0;
  virtual float scale() const = 0;

  virtual void upload(uint64_t key, const uint8_t* bytes, size_t size, int width, int height, int stride,
                      bool soft) = 0;
  // The key's texture or null; counts as a use for the renderer's ageing.
  virtual const MosaicTexture* lookup(uint64_t key) = 0;
  // Whether a texture exists and whether it's the soft version; no use counted.
  virtual bool hasTexture(uint64_t key, bool* soft) const = 0;
  // Drops every texture whose key `keep` refuses.
  virtual void retain(const std::function<bool(uint64_t)>& keep) = 0;
  virtual void trim(size_t budgetBytes) = 0;

  virtual void clearInstances() = 0;
  virtual void addInstance(const MosaicInstance& instance, const MosaicTexture* texture) = 0;
  // Draws this frame's instances; returns the milliseconds of work.
  virtual double draw() = 0;

  virtual uint32_t textureCount() const = 0;
  virtual size_t residentBytes() const = 0;
  virtual size_t pooledBytes() const = 0;
};

}  // namespace vt
