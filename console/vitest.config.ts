import { defineConfig, mergeConfig } from 'vitest/config';

import page from './vite.config';

// Apart from the page's, which is built without the packages of the tests.
export default mergeConfig(
  page,
  defineConfig({
    test: {
      include: ['tests/**/*.test.ts'],
      // More than processors: whoever looks at a page waits most of the time.
      maxWorkers: 4,
      minWorkers: 1,
      testTimeout: 180_000,
      hookTimeout: 180_000,
    },
  }),
);
