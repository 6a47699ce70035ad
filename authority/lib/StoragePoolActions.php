<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** What can be asked about storage pools. */
final class StoragePoolActions
{
    public const TABLE = ['discover' => [self::class, 'discover']];

    public function __construct(private readonly Store $store)
    {
    }

    /** Lists the pools to anyone who has an account. */
    public function discover(): \Closure
    {
        return function (): string {
            return Answer::data(['id' => 'I', 'name' => 'S'], array_map('array_values', $this->store->pools()));
        };
    }
}
