// Runs in every page before the page's own scripts. window.kx is for the page; window.kxScreen is how the
// screen acts on the page.
(function () {
  "use strict";

  const registry = Object.freeze(/*REGISTRY*/{});
  const waiting = [];
  const asking = [];
  let bridge = null;

  // What the page says before the connection to the screen stands is said then.
  function tell(name, data) {
    if (bridge === null) {
      waiting.push([name, data]);
    } else {
      bridge.Tell(name, data);
    }
  }

  new QWebChannel(qt.webChannelTransport, (channel) => {
    bridge = channel.objects.bridge;
    waiting.splice(0).forEach(([name, data]) => tell(name, data));
  });

  function element(tag, style, parent) {
    const made = document.createElement(tag);
    made.style.cssText = style;
    parent.appendChild(made);
    return made;
  }

  function remove(id) {
    const found = document.getElementById(id);
    if (found !== null) {
      found.remove();
    }
    return found !== null;
  }

  function overlay(id, style) {
    remove(id);
    const made = element("div", "position:fixed;left:0;right:0;z-index:2147483647;" + style, document.body);
    made.id = id;
    return made;
  }

  function change(entry) {
    const target = document.getElementById(entry.id);
    if (target === null) {
      return false;
    }
    if (entry.attribute !== "") {
      target.setAttribute(entry.attribute, entry.text);
    } else if ("value" in target && target.tagName !== "BUTTON" && target.tagName !== "LI") {
      target.value = entry.text;
    } else {
      target.textContent = entry.text;
    }
    return true;
  }

  window.kx = Object.freeze({
    registry,
    // The installed applications, with name, homeButton, desktopItems and configPages; a promise.
    applications: () => new Promise((resolve) => {
      asking.push(resolve);
      tell("kx-applications", {});
    }),
    event: (name, data) => tell(String(name), data === undefined ? {} : Object(data)),
  });

  window.kxScreen = Object.freeze({
    // Everything that can be changed is; whether that was everything.
    update: (entries) => entries.map(change).every(Boolean),

    applications: (list) => asking.splice(0).forEach((resolve) => resolve(list)),

    prompt: (label, buttons) => {
      const box = overlay("kx-prompt", "bottom:0;padding:14px;background:#14324f;color:#fff;" +
        "font:15px 'DejaVu Sans',sans-serif;box-shadow:0 -2px 8px rgba(0,0,0,.3)");
      element("div", "margin-bottom:10px;text-align:center", box).textContent = label;
      const row = element("div", "display:flex;gap:8px", box);
      buttons.forEach((caption) => {
        const button = element("button", "flex:1;min-height:44px;border:0;border-radius:10px;background:#1f7a4d;" +
          "color:#fff;font:600 15px 'DejaVu Sans',sans-serif", row);
        button.textContent = caption;
        button.addEventListener("click", () => {
          box.remove();
          tell("prompt", { button: caption });
        });
      });
      return true;
    },

    playVideo: (url) => {
      const box = overlay("kx-video", "top:0;bottom:0;background:#000");
      const video = element("video", "width:100%;height:100%", box);
      ["playing", "ended", "error"].forEach((state) =>
        video.addEventListener(state, () => tell("video", { state, url })));
      video.src = url;
      video.autoplay = true;
      return true;
    },

    stopVideo: () => remove("kx-video"),

    // A touch in the middle of the first element that the selector finds.
    touch: (selector) => {
      const found = document.querySelector(selector);
      if (found !== null) {
        found.click();
      }
      return found !== null;
    },

    // Answers "painted" once what the page has become is on the screen.
    painted: () => requestAnimationFrame(() => requestAnimationFrame(() => tell("kx-painted", {}))),
  });
}());
